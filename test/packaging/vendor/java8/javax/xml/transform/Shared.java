package javax.xml.transform;

/** Of a package that is also in a module of the JDK, as in xml-apis.jar. */
public class Shared {}
