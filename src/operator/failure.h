#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace operator_tool {

// The exit statuses that are the program's own, as those of env(1) and timeout(1). Any other is
// that of the command that it ran.
constexpr int DONE = 0;
constexpr int WRONG_CALL = 2;
constexpr int LIMIT_REACHED = 124;
constexpr int FAILED = 125;
constexpr int CANNOT_BE_EXECUTED = 126;
constexpr int NOT_FOUND = 127;

/// Ends the program with one line on standard error and this status. Only main catches it.
struct Failure : std::runtime_error {
    Failure(int exitStatus, const std::string& text)
        : std::runtime_error(text), status(exitStatus) {}

    int status;
};

/// The failure of a system call: what it was about, and the text of the error, which is errno's by
/// default.
inline Failure systemFailure(const std::string& about, int error = errno) {
    return {FAILED, about + ": " + std::generic_category().message(error)};
}

}  // namespace operator_tool
