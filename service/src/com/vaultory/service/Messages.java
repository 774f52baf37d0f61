package com.vaultory.service;

import java.util.MissingResourceException;
import java.util.ResourceBundle;

/** The texts in the lang directory, which is on the class path; a missing text is its key. */
final class Messages {
    static final String FILE = "messages";

    private final ResourceBundle bundle;

    private Messages(ResourceBundle bundle) {
        this.bundle = bundle;
    }

    static Messages load() {
        try {
            return new Messages(ResourceBundle.getBundle(FILE));
        } catch (MissingResourceException missing) {
            return new Messages(null);
        }
    }

    boolean found() {
        return bundle != null;
    }

    String get(String key) {
        return bundle != null && bundle.containsKey(key) ? bundle.getString(key) : key;
    }
}
