package com.vaultory.service;

/** The service's class with a main that is not static. */
public class QRService {
    public void main(String[] args) {}
}
