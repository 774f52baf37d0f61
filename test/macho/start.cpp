/// Runs one slice of the macOS executable, linked into this file, as a process of Linux:
///
///   format.h       the records of the file, as they lie there
///   image.cpp      the file in memory: segments, libraries, pointers to fix
///   unwinding.cpp  its unwinding entries, for the unwinder of this process
///   libsystem.cpp  what it asks of libSystem, and of the runtime library
///   start.cpp      this: initialisers, main, exit
///
/// What it proves: the machine code that is shipped, the C++ library in it included, does
/// what the tests say. What it cannot prove: anything of dyld, libSystem, the kernel,
/// signatures or Gatekeeper. This file is the executable, so its path is the service's.

#include <cstdio>
#include <cstdlib>

#include "image.h"

extern "C" const std::uint8_t slice[];  // slice.S

namespace macho {

void fail(const std::string& why) {
    std::fprintf(stderr, "macho: %s\n", why.c_str());
    std::abort();
}

}  // namespace macho

namespace {

/// The type of main, and of the functions that initialise the slice's global objects. The last list
/// is what the kernel of macOS tells a program of itself.
using Start = int (*)(int argc, char** argv, char** envp, char** apple);

void runInitialisers(const macho::Section& section, int argc, char** argv, char** envp,
                     char** apple) {
    for (std::uint64_t offset = 0; offset < section.size; offset += sizeof(Start)) {
        const auto initialiser = macho::at<Start>(section.begin + offset);
        initialiser(argc, argv, envp, apple);
    }
}

}  // namespace

int main(int argc, char* argv[], char* envp[]) {
    char* noApple[] = {nullptr};
    const macho::Image image(slice);
    macho::registerUnwinding(image);
    for (const macho::Section& section : image.sections) {
        if (section.type == macho::format::INITIALISERS) {
            runInitialisers(section, argc, argv, envp, noApple);
        }
    }
    const auto start = reinterpret_cast<Start>(image.entry);
    std::exit(start(argc, argv, envp, noApple));
}
