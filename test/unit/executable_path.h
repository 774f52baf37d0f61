#pragma once

#include <string>

/// What launcher::getExecutablePath gives in these tests, in place of the platform's answer.
inline std::string executablePath;
