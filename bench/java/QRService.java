package com.vaultory.service;

import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.Statement;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import javax.net.ssl.SSLContext;
import javax.xml.parsers.DocumentBuilderFactory;

/** A service that has some 2,000 classes loaded when it says that it is ready. */
public final class QRService {
    private QRService() {}

    public static void main(String[] args) throws Exception {
        DocumentBuilderFactory.newInstance().newDocumentBuilder().parse(new ByteArrayInputStream(
            "<backup><set name='documents'/></backup>".getBytes(StandardCharsets.UTF_8)));
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
