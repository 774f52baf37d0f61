#pragma once

#include <cstdint>

namespace launcher {

/// Writes the path of this executable, null-terminated, to buffer and returns 0; *size is the
/// buffer's capacity in bytes. If that is too small, returns -1, stores the required capacity
/// in *size and leaves the buffer unchanged. The path is the string given to exec, unresolved;
/// a relative one is appended to the working directory and "/", without its leading "./".
/// There is one source file per platform.
int getExecutablePath(char* buffer, std::uint32_t* size);

}  // namespace launcher
