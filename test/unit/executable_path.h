#pragma once

#include <cstdint>
#include <string>

/// Takes the platform's part in these tests: launcher::getExecutablePath gives this path.
namespace executable {

extern std::string path;
extern int timesAsked;
extern std::uint32_t capacity;  // as last offered

/// From here on the executable lies at this path, and has not been asked for.
void liesAt(const std::string& newPath);

}  // namespace executable
