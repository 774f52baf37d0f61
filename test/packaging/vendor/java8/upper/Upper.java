package upper;

public class Upper {
    public static final String TEXT = new String("upper "); // not a constant: the class is loaded
}
