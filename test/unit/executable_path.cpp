#include "executable_path.h"

#include "jvmargs/executable_path.h"

namespace executable {

std::string& path() {
    static std::string current;
    return current;
}

int timesAsked = 0;
std::uint32_t capacity = 0;

void liesAt(const std::string& newPath) {
    path() = newPath;
    timesAsked = 0;
    capacity = 0;
}

}  // namespace executable

int launcher::getExecutablePath(char* buffer, std::uint32_t* size) {
    ++executable::timesAsked;
    executable::capacity = *size;
    const std::string& path = executable::path();
    const std::uint32_t needed = static_cast<std::uint32_t>(path.size()) + 1;
    if (needed > *size) {
        *size = needed;
        return -1;
    }
    path.copy(buffer, path.size());
    buffer[path.size()] = '\0';
    return 0;
}
