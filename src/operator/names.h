#pragma once

#include <string>

namespace operator_tool {

/// Renames what has the name from, itself if it is a symbolic link. Fails if there is a file of the
/// new name, even an empty directory or a link to nowhere: nothing is replaced, or moved into.
void renameOne(const std::string& from, const std::string& to);

/// Exchanges what two names stand for, in one step: whoever looks sees both before, or both after.
void exchange(const std::string& one, const std::string& other);

// The system's part has one source file per platform. Both return 0, or -1 with errno.
int renameWithoutReplacing(const char* from, const char* to);
int swapNames(const char* one, const char* other);

}  // namespace operator_tool
