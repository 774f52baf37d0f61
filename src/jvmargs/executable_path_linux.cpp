#include <sys/auxv.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "jvmargs/executable_path.h"

namespace launcher {

// AT_EXECFN is the string given to exec, while /proc/self/exe has its links resolved. The kernel
// always provides it; without it the conversion of null to a string would abort the process. If
// getcwd fails, a relative path is returned as it is.
int getExecutablePath(char* buffer, std::uint32_t* size) {
    std::string path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    char workingDir[PATH_MAX];
    if (!path.starts_with('/') && getcwd(workingDir, sizeof workingDir) != nullptr) {
        path = std::string(workingDir) + "/" + path.substr(path.starts_with("./") ? 2 : 0);
    }
    const std::size_t needed = path.size() + 1;
    if (needed > *size) {
        *size = static_cast<std::uint32_t>(needed);
        return -1;
    }
    std::memcpy(buffer, path.c_str(), needed);
    return 0;
}

}  // namespace launcher
