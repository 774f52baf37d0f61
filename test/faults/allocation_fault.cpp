/// Preloaded, lets one allocation of the program fail: the one whose number, from 1, the
/// environment's ALLOCATION_FAULT gives; what libraries allocate counts for nothing. Writes
/// how many there were to /tmp/allocations when the program exits.

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

/// The first object listed is the program.
int findProgram(dl_phdr_info* object, std::size_t, void* result) {
    auto* const range = static_cast<Range*>(result);
    range->begin = object->dlpi_addr;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD) {
            range->end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        }
    }
    return 1;
}

Range program;
long allocations = 0;

__attribute__((destructor)) void report() {
    const int file = open("/tmp/allocations", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dprintf(file, "%ld\n", allocations);
    close(file);
}

}  // namespace

extern "C" void* malloc(std::size_t size) {
    if (program.end == 0) {
        dl_iterate_phdr(findProgram, &program);
    }
    const auto caller = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
    if (program.begin <= caller && caller < program.end) {
        const char* const fault = std::getenv("ALLOCATION_FAULT");
        if (fault != nullptr && std::atol(fault) == ++allocations) {
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(size);
}
