#include "executable_path.h"

#include "jvmargs/executable_path.h"

namespace executable {

std::string path;
int timesAsked = 0;
std::uint32_t capacity = 0;

void liesAt(const std::string& newPath) {
    path = newPath;
    timesAsked = 0;
    capacity = 0;
}

}  // namespace executable

int launcher::getExecutablePath(char* buffer, std::uint32_t* size) {
    ++executable::timesAsked;
    executable::capacity = *size;
    const std::uint32_t needed = static_cast<std::uint32_t>(executable::path.size()) + 1;
    if (needed > *size) {
        *size = needed;
        return -1;
    }
    executable::path.copy(buffer, executable::path.size());
    buffer[executable::path.size()] = '\0';
    return 0;
}
