package com.vaultory.service;

import java.io.File;
import java.io.IOException;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.logging.Level;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import org.w3c.dom.Element;
import org.w3c.dom.NodeList;
import org.xml.sax.SAXException;
import org.xml.sax.helpers.DefaultHandler;

/** Reads and checks the logging configuration. */
final class LogConfig {
    private LogConfig() {}

    /** Returns the level of each logger in the file, or a "problem" with the file. */
    static Map<String, Object> read(String path) {
        Map<String, Object> levels = new LinkedHashMap<String, Object>();
        if (path == null || !new File(path).isFile()) {
            levels.put("problem", "no file");
            return levels;
        }
        try {
            NodeList loggers = parse(path).getElementsByTagName("logger");
            for (int i = 0; i < loggers.getLength(); i++) {
                Element logger = (Element) loggers.item(i);
                String name = logger.getAttribute("name");
                Level level = Level.parse(logger.getAttribute("level"));
                levels.put(name.isEmpty() ? "(root)" : name, level.getName());
            }
        } catch (IOException | SAXException | ParserConfigurationException
                | IllegalArgumentException problem) {
            levels.put("problem", problem.getMessage());
        }
        return levels;
    }

    private static Element parse(String path)
            throws IOException, SAXException, ParserConfigurationException {
        DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
        factory.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
        DocumentBuilder builder = factory.newDocumentBuilder();
        builder.setErrorHandler(new DefaultHandler());
        return builder.parse(new File(path)).getDocumentElement();
    }
}
