package below;

public class Below {
    public static final String TEXT = new String("below "); // not a constant: the class is loaded
}
