#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace operator_tool {

enum class Part : std::uint8_t { FIRST, LAST };

/// Prints the first or the last bytes of a regular file; less if the file is shorter, or becomes
/// so. Follows no link at the path's end and waits for no writer of a FIFO.
void printPart(const std::string& path, Part part, unsigned bytes);

/// The descriptor that holds a lock, in the range that a shell's redirections can name: a script
/// closes it (9>&-) for what it starts and does not wait for.
constexpr int LOCK_DESCRIPTOR = 9;

/// Locks a file of the caller's, created if it is missing, on LOCK_DESCRIPTOR. The lock is
/// flock's: what is executed or started inherits it, and it ends with the last process that has the
/// descriptor. Fails with LIMIT_REACHED if another holds it for that many seconds.
void takeLock(const std::string& path, unsigned seconds);

/// Writes all of it to standard output.
void print(const char* data, std::size_t size);

}  // namespace operator_tool
