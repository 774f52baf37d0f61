package vendor;

public class Descriptor {
    public static final String TEXT = new String("descriptor "); // not a constant: the class is loaded
}
