#pragma once

#include <cstdint>
#include <string>

/// Replaces the platform in these tests: launcher::getExecutablePath gives this path, also
/// before main.
namespace executable {

std::string& path();
extern int timesAsked;
extern std::uint32_t capacity;  // as last offered

/// From here on the executable lies at this path, and has not been asked for.
void liesAt(const std::string& newPath);

}  // namespace executable
