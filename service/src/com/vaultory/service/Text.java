package com.vaultory.service;

import java.util.List;
import java.util.Map;

/** A readable report: a heading per section, an indented line per entry. */
final class Text {
    private Text() {}

    static String of(Map<String, Object> report, Messages messages) {
        StringBuilder text = new StringBuilder(messages.get("title")).append('\n');
        for (Map.Entry<String, Object> section : report.entrySet()) {
            text.append(messages.get("section." + section.getKey())).append(':');
            appendSection(text, section.getValue());
        }
        return text.toString();
    }

    private static void appendSection(StringBuilder text, Object value) {
        if (value instanceof Map) {
            text.append('\n');
            for (Map.Entry<?, ?> entry : ((Map<?, ?>) value).entrySet()) {
                text.append("  ").append(entry.getKey()).append(" = ");
                text.append(entry.getValue()).append('\n');
            }
        } else if (value instanceof List) {
            text.append(((List<?>) value).isEmpty() ? " -\n" : "\n");
            for (Object element : (List<?>) value) {
                text.append("  ").append(line(element)).append('\n');
            }
        } else {
            text.append(' ').append(value).append('\n');
        }
    }

    private static String line(Object element) {
        if (!(element instanceof Map)) {
            return '"' + element.toString() + '"';
        }
        Map<?, ?> path = (Map<?, ?>) element;
        return String.format("%-10s%s = %s", path.get("state"), path.get("name"), path.get("path"));
    }
}
