#include "executable_path.h"

#include "jvmargs/executable_path.h"

int launcher::getExecutablePath(char* buffer, std::uint32_t* size) {
    const auto needed = static_cast<std::uint32_t>(executablePath.size() + 1);
    if (needed > *size) {
        *size = needed;
        return -1;
    }
    executablePath.copy(buffer, needed);
    buffer[needed - 1] = '\0';
    return 0;
}
