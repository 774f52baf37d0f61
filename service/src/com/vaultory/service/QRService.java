package com.vaultory.service;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.io.UnsupportedEncodingException;

/**
 * The sample service, to be replaced by a vendor's own. Its first argument is a command: stay, linger,
 * throw, exit or version. Without one it reports what the launcher passed to it, as JSON.
 */
public final class QRService {
    private static final long DEFAULT_SECONDS = 10;

    private QRService() {}

    public static void main(String[] args) throws Exception {
        PrintStream out = utf8(FileDescriptor.out);
        Messages messages = Messages.load();
        String command = args.length > 0 ? args[0] : "";
        if (command.equals("stay")) {
            stay(seconds(args), out, messages);
        } else if (command.equals("linger")) {
            linger(seconds(args), out, messages);
        } else if (command.equals("throw")) {
            throw new IllegalStateException(args.length > 1 ? args[1] : command);
        } else if (command.equals("exit")) {
            System.exit(args.length > 1 ? Integer.parseInt(args[1]) : 0);
        } else if (command.equals("version")) {
            out.println(Report.version());
        } else {
            out.println(Json.of(Report.collect(args, messages)));
        }
    }

    /** Prints a heartbeat until a signal ends the VM, then a last line from a shutdown hook. */
    private static void stay(long seconds, final PrintStream out, final Messages messages)
            throws InterruptedException {
        Runtime.getRuntime().addShutdownHook(new Thread("goodbye") {
            @Override
            public void run() {
                out.println(messages.get("stay.end"));
            }
        });
        out.println(messages.get("stay.begin"));
        for (long beat = 1;; beat++) {
            Thread.sleep(seconds * 1000);
            out.println(messages.get("stay.beat") + " " + beat);
        }
    }

    /** Returns at once, with a thread still running that keeps the VM up for the given time. */
    private static void linger(final long seconds, final PrintStream out,
            final Messages messages) {
        out.println(messages.get("linger.begin"));
        new Thread("lingering") {
            @Override
            public void run() {
                try {
                    Thread.sleep(seconds * 1000);
                } catch (InterruptedException interrupted) {
                    return;
                }
                out.println(messages.get("linger.end"));
            }
        }.start();
    }

    private static long seconds(String[] args) {
        return args.length > 1 ? Long.parseLong(args[1]) : DEFAULT_SECONDS;
    }

    /** Returns a UTF-8 stream; the VM's own would follow the environment's encoding. */
    private static PrintStream utf8(FileDescriptor descriptor) {
        try {
            return new PrintStream(new FileOutputStream(descriptor), true, "UTF-8");
        } catch (UnsupportedEncodingException impossible) {
            throw new AssertionError(impossible);
        }
    }
}
