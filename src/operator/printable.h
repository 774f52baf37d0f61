#pragma once

#include <string>
#include <string_view>

namespace operator_tool {

/// The text as a terminal and a JSON parser can take it: characters that move the cursor, change
/// the direction or are invisible, and bytes that are not UTF-8, are shown by number, such as
/// \x{1b}.
std::string printable(std::string_view text);

/// Reads texts from standard input, each with a NUL after it, and prints each on a line.
void printPrintable();

}  // namespace operator_tool
