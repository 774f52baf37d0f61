#pragma once

#include <cstdint>

namespace launcher {

/// Writes the path of this executable, zero-terminated, to buffer, whose capacity in bytes
/// is *size, and returns 0. Where that is too small, returns -1, stores the needed capacity
/// in *size and leaves buffer alone. The path is the string given to exec, unresolved; a
/// relative one gets the working directory and "/" in front, less a leading "./". One
/// source a platform.
int getExecutablePath(char* buffer, std::uint32_t* size);

}  // namespace launcher
