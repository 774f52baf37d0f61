/// Preloaded, counts the program's allocations and those of a C++ library outside of it, not those
/// of other libraries. The one whose number, from 1, is in the environment's ALLOCATION_FAULT
/// fails; their count is written to the file ALLOCATIONS when the program exits.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

long allocations = 0;

bool isCounted(void* caller) {
    dl_find_object found;
    if (_dl_find_object(caller, &found) != 0) {
        return false;
    }
    const char* const name = found.dlfo_link_map->l_name;  // the program's is empty
    return *name == '\0' || std::strstr(name, "/libc++abi.so") != nullptr;
}

__attribute__((destructor)) void report() {
    const int file = open(std::getenv("ALLOCATIONS"), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dprintf(file, "%ld\n", allocations);
    close(file);
}

}  // namespace

extern "C" void* malloc(std::size_t size) {
    const char* const fault = std::getenv("ALLOCATION_FAULT");
    if (isCounted(__builtin_return_address(0)) && ++allocations == std::atol(fault)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
