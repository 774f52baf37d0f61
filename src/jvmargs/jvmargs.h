#pragma once

#include <string>
#include <vector>

/// The product's locations on disk and its default VM options. These functions access no
/// file, keep no state and do not check that a path exists.
namespace launcher {

/// Returns the path of the running executable as the platform reports it, links and dots
/// unresolved, up to its last slash or backslash; all of it if it has neither. Returns an empty
/// string if the path and its terminator need more than 1024 bytes.
std::string getExeDir();

/// Returns root, the name of the home directory and suffix, joined. The name begins after the
/// first root in getExeDir() and ends before the first character that is in separators. Without
/// root it begins at index root.size() - 1; throws std::out_of_range if that is past the end.
std::string getUserSpecificPath(const std::string& root, const std::string& suffix,
                                const std::string& separators);

/// Returns the path of the override file: the system-wide one if isSystemInstall, otherwise the
/// one in the home directory, for which it throws as getUserSpecificPath does.
std::string getJVMArgsFilePath(bool isSystemInstall);

/// Returns the default VM options, in order, for the same flag as getJVMArgsFilePath. Throws as
/// that does.
std::vector<std::string> getDefaultJVMArgs(bool isSystemInstall);

}  // namespace launcher
