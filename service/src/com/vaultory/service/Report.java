package com.vaultory.service;

import java.io.File;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** What the launcher passed to the service: maps, lists, strings and numbers in a fixed order. */
final class Report {
    /** The properties set by the launcher whose values are paths. */
    private static final List<String> PATH_PROPERTIES = Arrays.asList(
            "orv.log.config", "orv.service.bin.path", "java.library.path", "jna.library.path",
            "orv.config.defaultPath", "orv.service.upgrade.path");

    /** The others that it sets or allows in its override file. */
    private static final List<String> OTHER_PROPERTIES = Arrays.asList(
            "sun.jnu.encoding", "file.encoding", "sun.net.inetaddr.ttl",
            "networkaddress.cache.ttl", "sun.net.inetaddr.negative.ttl",
            "networkaddress.cache.negative.ttl", "app", "appBaseName", "jna.nosys",
            "java.awt.headless", "Orvane", "nashorn.args",
            "orv.installation.enforcement.enabled", "java.net.preferIPv4Stack",
            "orv.security.mode", "user.install");

    private Report() {}

    static Map<String, Object> collect(String[] args, Messages messages) {
        Map<String, Object> report = new LinkedHashMap<String, Object>();
        report.put("version", version());
        report.put("arguments", Arrays.asList(args));
        report.put("options", options());
        report.put("properties", properties());
        report.put("heap", heap());
        report.put("java", java());
        List<String> missing = new ArrayList<String>();
        report.put("paths", paths(missing));
        report.put("messages", messages.found() ? "found" : "missing");
        report.put("missing", missing);
        return report;
    }

    static String version() {
        String version = Report.class.getPackage().getImplementationVersion();
        return version != null ? version : "unknown";
    }

    /** The VM options, or none in a runtime without java.management. */
    private static List<String> options() {
        try {
            return ManagementFactory.getRuntimeMXBean().getInputArguments();
        } catch (LinkageError absent) {
            return Collections.emptyList();
        }
    }

    private static Map<String, Object> properties() {
        Map<String, Object> set = new LinkedHashMap<String, Object>();
        for (String name : OTHER_PROPERTIES) {
            if (System.getProperty(name) != null) {
                set.put(name, System.getProperty(name));
            }
        }
        return set;
    }

    private static Map<String, Object> heap() {
        Map<String, Object> bytes = new LinkedHashMap<String, Object>();
        bytes.put("maximum", Runtime.getRuntime().maxMemory());
        bytes.put("committed", Runtime.getRuntime().totalMemory());
        return bytes;
    }

    private static Map<String, Object> java() {
        Map<String, Object> java = new LinkedHashMap<String, Object>();
        for (String name : Arrays.asList("java.version", "java.home", "user.dir")) {
            java.put(name, System.getProperty(name));
        }
        return java;
    }

    /** Each path with its property and state; the properties of missing paths are added to missing. */
    private static List<Object> paths(List<String> missing) {
        List<Object> paths = new ArrayList<Object>();
        for (String entry : System.getProperty("java.class.path").split(File.pathSeparator)) {
            paths.add(path("java.class.path", entry, missing));
        }
        for (String name : PATH_PROPERTIES) {
            if (System.getProperty(name) != null) {
                paths.add(path(name, System.getProperty(name), missing));
            }
        }
        return paths;
    }

    private static Map<String, Object> path(String name, String value, List<String> missing) {
        File file = new File(value);
        String state = file.isDirectory() ? "directory" : file.exists() ? "file" : "missing";
        if (state.equals("missing")) {
            missing.add(name);
        }
        Map<String, Object> path = new LinkedHashMap<String, Object>();
        path.put("state", state);
        path.put("name", name);
        path.put("path", value);
        return path;
    }
}
