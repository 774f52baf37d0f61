package com.vaultory.service;

import java.io.File;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.GregorianCalendar;
import java.util.Locale;

/** A vendor's service. Its first argument says how it ends. */
public class QRService {
    public static void main(String[] args) throws Exception {
        switch (args.length > 0 ? args[0] : "") {
        case "exit":
            System.exit(3);
        case "throw":
            throw new IllegalStateException("no database");
        case "throw-from-archive":
            throwUnlessItIsToBeArchived();
            break;
        }
        System.out.println(
            below.Below.TEXT + upper.Upper.TEXT + vendor.Descriptor.TEXT + versioned.Versioned.TEXT);
        // No class refers to the module with the German names of the days: only a run shows it.
        System.out.println(String.format(Locale.GERMANY, "%tA", new GregorianCalendar(2024, 0, 1)));
        if (args.length > 1 && args[1].endsWith(".jar")) {
            loadPlugin(new File(args[1]));
        }
        if (args.length > 0 && args[0].equals("serve")) {
            leaveSomethingBehind();
            Thread.sleep(600_000);
        }
    }

    /** Loads a class from a jar that the bundle need not have. */
    private static void loadPlugin(File jar) throws Exception {
        new URLClassLoader(new URL[] {jar.toURI().toURL()}, null).loadClass("agent.Agent");
    }

    /** Fails in the last run only, as a service does whose own runtime lacks a module. */
    private static void throwUnlessItIsToBeArchived() {
        String options = String.valueOf(System.getenv("JAVA_TOOL_OPTIONS"));
        if (!options.contains("-Xshare:off") && !options.contains("AOTMode")) {
            throw new IllegalStateException("a module is missing");
        }
    }

    /** A file, a process, and the file that the client waits for. */
    private static void leaveSomethingBehind() throws Exception {
        new File("service.db").createNewFile();
        new ProcessBuilder("sleep", "987").start();
        new File(System.getProperty("java.io.tmpdir"), "ready").createNewFile();
    }
}
