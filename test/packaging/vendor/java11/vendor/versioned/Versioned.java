package versioned;

/** The class for Java 11, which alone refers to java.sql. */
public class Versioned {
    public static final String TEXT = new String("versioned"); // not a constant: the class is loaded

    Object never() {
        return new java.sql.Timestamp(0);
    }
}
