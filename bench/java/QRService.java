package com.vaultory.service;

import java.io.ByteArrayInputStream;
import java.sql.*;
import java.util.concurrent.*;
import java.util.stream.*;
import javax.net.ssl.SSLContext;
import javax.xml.parsers.DocumentBuilderFactory;

/** A service that has some 2,000 classes loaded when it says that it is ready. */
public final class QRService {
    public static void main(String[] args) throws Exception {
        byte[] document = "<backup><set name='documents'/></backup>".getBytes("UTF-8");
        DocumentBuilderFactory.newInstance().newDocumentBuilder().parse(new ByteArrayInputStream(document));
        SSLContext.getDefault();
        ExecutorService workers = Executors.newFixedThreadPool(2);
        workers.submit(() -> IntStream.range(0, 100).mapToObj(Integer::toString)
            .collect(Collectors.joining(","))).get();
        workers.shutdown();
        try (Connection catalogue = DriverManager.getConnection("jdbc:hsqldb:mem:b", "SA", "");
                Statement statement = catalogue.createStatement()) {
            statement.execute("CREATE TABLE files (name VARCHAR(100) PRIMARY KEY, size BIGINT)");
            statement.execute("INSERT INTO files VALUES ('a', 1), ('b', 2)");
            statement.executeQuery("SELECT SUM(size) FROM files WHERE name < 'c'").next();
        }
        System.out.println("ready");
    }
}
