package versioned;

public class Versioned {
    public static final String TEXT = new String("versioned"); // not a constant: the class is loaded
}
