package com.vaultory.service;

import java.util.List;
import java.util.Map;

/** Prints a report as indented JSON in pure ASCII, so that strings can be compared exactly. */
final class Json {
    private Json() {}

    static String of(Object value) {
        StringBuilder json = new StringBuilder();
        append(json, value, "\n");
        return json.toString();
    }

    private static void append(StringBuilder json, Object value, String newLine) {
        String inner = newLine + "  ";
        String comma = inner;
        if (value instanceof Map) {
            json.append('{');
            for (Map.Entry<?, ?> entry : ((Map<?, ?>) value).entrySet()) {
                json.append(comma);
                append(json, entry.getKey(), inner);
                json.append(": ");
                append(json, entry.getValue(), inner);
                comma = "," + inner;
            }
            json.append(newLine).append('}');
        } else if (value instanceof List) {
            json.append('[');
            for (Object element : (List<?>) value) {
                json.append(comma);
                append(json, element, inner);
                comma = "," + inner;
            }
            json.append(newLine).append(']');
        } else if (value instanceof String) {
            quote(json, (String) value);
        } else {
            json.append(value);
        }
    }

    private static void quote(StringBuilder json, String text) {
        json.append('"');
        for (char c : text.toCharArray()) {
            if (c == '"' || c == '\\') {
                json.append('\\').append(c);
            } else if (c < ' ' || c > '~') {
                json.append(String.format("\\u%04x", (int) c));
            } else {
                json.append(c);
            }
        }
        json.append('"');
    }
}
