#pragma once

#include <string>
#include <vector>

/// Where the product lies on disk, and the options every run of its VM starts with.
/// No file is touched, no state kept, and no path looked for on disk. Any thread may call
/// any of it.
namespace launcher {

/// The path of the running executable as the platform names it, links and dots unresolved,
/// up to its last slash or backslash; all of it if there is neither. Empty if the path and
/// its terminator need more than 1024 bytes.
std::string getExeDir();

/// root, the home folder's name, suffix. The name is what follows the first root in
/// getExeDir(), up to any character of separators. Where root is absent the name is
/// taken from index root.size() - 1 of the directory; std::out_of_range if that lies
/// beyond its end.
std::string getUserSpecificPath(const std::string& root, const std::string& suffix,
                                const std::string& separators);

/// The override file. Pass true for system-wide; a per-user path is made by
/// getUserSpecificPath and fails as it does.
std::string getJVMArgsFilePath(bool isSystemInstall);

/// The 23 built-in VM options, in order. Flag and failure as for getJVMArgsFilePath.
std::vector<std::string> getDefaultJVMArgs(bool isSystemInstall);

}  // namespace launcher
