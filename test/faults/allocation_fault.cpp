/// Preloaded, counts the program's allocations and those of a C++ library outside of it, not those of
/// other libraries. The one whose number, from 1, is in the environment's ALLOCATION_FAULT fails; their
/// count is written to the file ALLOCATIONS when the program exits.

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

/// The first object listed is the program, whose name is empty; another may have operator new.
int findRanges(dl_phdr_info* object, std::size_t, void* result) {
    if (*object->dlpi_name != '\0' && std::strstr(object->dlpi_name, "/libc++abi.so") == nullptr) {
        return 0;
    }
    auto* const ranges = static_cast<std::array<Range, 2>*>(result);
    Range* const range = &(*ranges)[(*ranges)[0].end != 0];
    range->begin = object->dlpi_addr;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD) {
            range->end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        }
    }
    return 0;
}

std::array<Range, 2> counted;
long allocations = 0;

__attribute__((destructor)) void report() {
    const int file = open(std::getenv("ALLOCATIONS"), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dprintf(file, "%ld\n", allocations);
    close(file);
}

}  // namespace

extern "C" void* malloc(std::size_t size) {
    if (counted[0].end == 0) {
        dl_iterate_phdr(findRanges, &counted);
    }
    const auto caller = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
    if (std::any_of(counted.begin(), counted.end(), [caller](const Range& range) {
            return range.begin <= caller && caller < range.end;
        })) {
        const char* const fault = std::getenv("ALLOCATION_FAULT");
        if (fault != nullptr && std::atol(fault) == ++allocations) {
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(size);
}
