/// What root's scripts need and a shell cannot do safely: the commands in USAGE. Each is one step,
/// of which a script sees the exit status; an error is one line on standard error.
///
/// Root runs this program from the bundle, as it runs the script beside it. It has no option and no
/// configuration, and reads nothing of the environment but PATH, where it looks for a COMMAND.

#include <array>
#include <charconv>
#include <iostream>
#include <span>
#include <string>
#include <string_view>

#include "operator/failure.h"
#include "operator/files.h"
#include "operator/names.h"
#include "operator/printable.h"
#include "operator/processes.h"
#include "operator/user.h"

namespace {

using operator_tool::Failure;

constexpr std::string_view USAGE =
    R"(usage: operator-tool lock FILE SECONDS COMMAND [ARG...]
       operator-tool limit SECONDS COMMAND [ARG...]
       operator-tool as-user NAME COMMAND [ARG...]
       operator-tool rename FROM TO
       operator-tool exchange ONE OTHER
       operator-tool read FILE first|last BYTES
       operator-tool printable
  lock       executes COMMAND with a lock on FILE, which is created if missing; waits for it
             up to SECONDS. COMMAND and what it starts hold it, as descriptor 9
  limit      runs COMMAND in a process group of its own, and kills the group after SECONDS
  as-user    executes COMMAND as the user NAME for good; the caller is root, or that user
  rename     renames FROM; replaces nothing, and moves nothing into a directory
  exchange   exchanges ONE and OTHER in one step
  read       prints the first or last BYTES of a regular file
  printable  reads texts that end in NUL, and prints each on a line that is safe to show
No link at the end of a path is followed. SECONDS and BYTES are at most 99999999.
Exit status: 0 done, 2 wrong call, 124 limit reached, 125 failed, 126 COMMAND cannot be
executed, 127 COMMAND not found; otherwise COMMAND's, 128 and its number for a signal.
)";

/// The arguments after the name of the command; a null pointer ends them.
using Arguments = std::span<char* const>;

/// Eight digits fit in 32 bits ten times over, and alarm takes them on every system.
constexpr std::size_t DIGITS = 8;

unsigned number(std::string_view text, unsigned smallest) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), value);
    if (error != std::errc() || end != text.end() || text.size() > DIGITS || value < smallest) {
        throw Failure(operator_tool::WRONG_CALL, "'" + std::string(text) +
                                                     "' is not a number from " +
                                                     std::to_string(smallest) + " to 99999999");
    }
    return value;
}

int lock(Arguments arguments) {
    operator_tool::takeLock(arguments[0], number(arguments[1], 0));
    operator_tool::execute(&arguments[2]);
}

int limit(Arguments arguments) {
    return operator_tool::runWithLimit(number(arguments[0], 1), &arguments[1]);
}

int asUser(Arguments arguments) {
    operator_tool::becomeUser(arguments[0]);
    operator_tool::execute(&arguments[1]);
}

int rename(Arguments arguments) {
    operator_tool::renameOne(arguments[0], arguments[1]);
    return operator_tool::DONE;
}

int exchange(Arguments arguments) {
    operator_tool::exchange(arguments[0], arguments[1]);
    return operator_tool::DONE;
}

int read(Arguments arguments) {
    const std::string_view part = arguments[1];
    if (part != "first" && part != "last") {
        throw Failure(operator_tool::WRONG_CALL,
                      "'" + std::string(part) + "' is neither first nor last");
    }
    operator_tool::printPart(
        arguments[0], part == "first" ? operator_tool::Part::FIRST : operator_tool::Part::LAST,
        number(arguments[2], 0));
    return operator_tool::DONE;
}

int printable(Arguments /*none*/) {
    operator_tool::printPrintable();
    return operator_tool::DONE;
}

struct Entry {
    std::string_view name;
    std::size_t arguments;  // how many, the COMMAND included
    bool takesMore;         // the COMMAND's own
    int (*run)(Arguments);
};

constexpr std::array<Entry, 7> ENTRIES = {{
    {.name = "lock", .arguments = 3, .takesMore = true, .run = lock},
    {.name = "limit", .arguments = 2, .takesMore = true, .run = limit},
    {.name = "as-user", .arguments = 2, .takesMore = true, .run = asUser},
    {.name = "rename", .arguments = 2, .takesMore = false, .run = rename},
    {.name = "exchange", .arguments = 2, .takesMore = false, .run = exchange},
    {.name = "read", .arguments = 3, .takesMore = false, .run = read},
    {.name = "printable", .arguments = 0, .takesMore = false, .run = printable},
}};

int run(std::string_view name, Arguments arguments) {
    for (const Entry& entry : ENTRIES) {
        if (entry.name != name || arguments.size() < entry.arguments) {
            continue;
        }
        if (arguments.size() > entry.arguments && !entry.takesMore) {
            continue;
        }
        return entry.run(arguments);
    }
    std::cerr << USAGE;
    return operator_tool::WRONG_CALL;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        if (argc < 2) {
            return run("", {});
        }
        return run(argv[1], Arguments(argv + 2, argv + argc));
    } catch (const Failure& failure) {
        std::cerr << "operator-tool: " << failure.what() << '\n';
        return failure.status;
    }
}
