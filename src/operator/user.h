#pragma once

#include <string>

namespace operator_tool {

/// Gives the process the user's and group's number, and the groups, of that user, for good. Fails
/// if anything of the caller's is left or can be regained; for root, which is no user to become;
/// and if the caller is neither root nor that user.
void becomeUser(const std::string& name);

}  // namespace operator_tool
