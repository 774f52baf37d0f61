module vendor {
    requires gone;
    requires java.sql;
}
