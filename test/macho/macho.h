#pragma once

#include <stddef.h>
#include <stdint.h>

/// Runs a slice of the macOS executable as an ordinary Linux process, for tests: the file that
/// MACHO_FILE names, over the libjvm.so in the bundle. Start the loader under the name and in the
/// place of the executable: that is what it takes for its own path.
///
/// It proves what the shipped code does: every instruction is the slice's, with the C++ library
/// linked into it. It proves nothing about dyld, libSystem, code signatures or Gatekeeper: file.c
/// and libsystem.c stand in for the first two, and the others are not there. What it does not
/// understand ends the process with its name and status 70; nothing is skipped.

struct Segment {
    uint8_t* begin;
    uint64_t size;
    int protection;
};

/// A slice in memory, mapped, not yet bound. Addresses of its sections are those in memory.
struct Image {
    const uint8_t* file;
    uint8_t* base;  // of the Mach header
    struct Segment segments[8];
    uint32_t segmentCount;
    const char* libraries[4];  // in the order of their ordinals
    uint32_t libraryCount;
    const char* runPaths[4];
    uint32_t runPathCount;
    uint32_t dyldInfo[10];  // offset and size of rebase, bind, weak bind, lazy bind, export
    uint64_t entry;
    void (**initializers)(int, char**, char**, const char**);
    uint64_t initializerCount;
    const uint8_t* unwindInfo;
    const uint8_t* ehFrame;
};

/// Prints "macho: " and the message and ends the process with status 70.
_Noreturn void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Reads a LEB128 number and moves *at past it.
uint64_t readUleb(const uint8_t** at);

/// Maps this machine's slice of the file.
void mapImage(struct Image* image, const char* path);

/// Loads its libraries, relocates it and binds every import, then protects its segments.
void bindImage(struct Image* image);

/// Tells the unwinder of every function that has unwinding information.
void registerUnwinding(const struct Image* image);

/// Returns what an import of libSystem is bound to; ends the process if nothing stands in for it.
void* systemSymbol(const char* name);

/// Returns what JNI_CreateJavaVM is bound to, given the runtime library's own.
void* createJavaVM(void* genuine);
