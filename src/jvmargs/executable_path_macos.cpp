#include <mach-o/dyld.h>

#include "jvmargs/executable_path.h"

namespace launcher {

int getExecutablePath(char* buffer, std::uint32_t* size) {
    return _NSGetExecutablePath(buffer, size);
}

}  // namespace launcher
