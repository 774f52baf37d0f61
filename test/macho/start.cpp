/// Runs one slice of the macOS executable, linked into this file, as a process of Linux:
///
///   image.cpp      the file format: segments, libraries, pointers to fix
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

int main(int argc, char* argv[], char* envp[]) {
    using Start = int (*)(int, char**, char**, char**);
    char* noApple[] = {nullptr};
    const macho::Image image(slice);
    macho::registerUnwinding(image);
    for (const macho::Section& section : image.sections) {
        for (std::uint64_t at = 0; section.type == 0x9 && at < section.size; at += sizeof(Start)) {
            macho::at<Start>(section.begin + at)(argc, argv, envp, noApple);
        }
    }
    std::exit(reinterpret_cast<Start>(image.entry)(argc, argv, envp, noApple));
}
