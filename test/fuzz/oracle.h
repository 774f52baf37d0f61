#pragma once

#include <optional>
#include <string>
#include <vector>

/// What a run of the launcher is given.
struct Given {
    std::optional<std::vector<std::string>> commandLine;  // nothing: not even a program name
    std::string executablePath;
    std::optional<std::string> overrideFile;
    int createStatus = 0;
    bool hasClass = true;
    bool hasMethod = true;
};

/// What comes of it, as seen from outside.
struct Outcome {
    std::vector<std::string> output;  // standard output, cut where it is flushed
    std::string errors;
    std::string end;                  // "status N", or "uncaught KIND"
    std::vector<std::string> opened;  // "MODE PATH" of each file
    std::vector<std::string> calls;   // of the runtime, as it records them

    bool operator==(const Outcome&) const = default;
};

/// What has to come of it, from the documented behaviour alone.
Outcome tell(const Given& given);
