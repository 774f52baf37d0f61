#pragma once

namespace operator_tool {

/// A command and its arguments, as exec takes them. It is looked for in PATH if its name has no
/// slash; nothing else of the environment is read.
using Command = char* const*;

/// Executes the command in place of this program, with the descriptors, signals and environment of
/// the caller.
[[noreturn]] void execute(Command command);

/// Runs the command in a process group of its own and returns its exit status, or 128 and the
/// number of the signal that ended it. At the limit the group is sent SIGTERM, SIGKILL if it has
/// not ended two seconds later, and the result is LIMIT_REACHED. What has left the group is not
/// reached.
///
/// The command gets every signal's default action and none blocked, whatever the caller ignores: a
/// script that ignores SIGTERM while it works must still be able to end what it has started. The
/// caller's own ignored signals stay ignored here. Another HUP, INT, QUIT or TERM ends the group in
/// the same way within a second, and then this process.
int runWithLimit(unsigned seconds, Command command);

}  // namespace operator_tool
