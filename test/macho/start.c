#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "macho.h"

void die(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("macho: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    _Exit(70);
}

int main(int argc, char* argv[], char* envp[]) {
    const char* const path = getenv("MACHO_FILE");
    if (path == NULL) {
        die("MACHO_FILE names no file; set it to the path of a macOS executable");
    }
    const char* const apple[] = {path, NULL};
    struct Image image = {0};
    mapImage(&image, path);
    bindImage(&image);
    registerUnwinding(&image);
    for (uint64_t i = 0; i < image.initializerCount; ++i) {
        image.initializers[i](argc, argv, envp, (const char**)apple);
    }
    int (*const entry)(int, char**, char**, const char* const*) =
        (int (*)(int, char**, char**, const char* const*))(image.base + image.entry);
    exit(entry(argc, argv, envp, apple));
}
