/// The launcher's run, from argv to the exit status, on the process's only thread:
///
///   1. argv without the program name becomes the command line.
///   2. The command line decides the install mode, which is printed at once.
///   3. The other arguments become the application arguments; one that begins with "-"
///      is rejected and ends the process with status 1.
///   4. The VM options are the built-in defaults, the allowed lines of the override
///      file and, per user, the install marker; a rejected line also ends the process.
///   5. Both lists are printed.
///   6. The VM is created, the service's main is found, called and waited for, and the
///      VM is destroyed. The VM's errors are caught only here.
///
/// The launcher writes no file, reads no environment variable and never changes its working
/// directory: the class path and the run paths are relative to it.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "jvm/jvm.h"
#include "jvmargs/jvmargs.h"

namespace {

/// What what(1) finds in the executable's file. Only a volatile that main reads stays there: the
/// linker of the macOS executable drops any other constant, even one with the attribute "used".
const volatile char IDENTIFICATION[] = "@(#)OrvaneService " ORVANE_VERSION;

constexpr std::string_view USER_INSTALL_ARG = "-Duser.install=1";
constexpr std::string_view SYS_INSTALL_ARG = "-Duser.install=0";

/// The override file's allow-list: the prefixes that a line may begin with.
constexpr std::array<std::string_view, 3> WHITE_LIST_FILE_ARGS = {
    "-Xmx",
    "-Djava.net.preferIPv4Stack=",
    "-Dorv.security.mode=",
};

/// Returns true for a per-user run. SYS_INSTALL_ARG has no effect.
bool isUserInstall(const std::vector<std::string>& commandLine) {
    return std::count(commandLine.begin(), commandLine.end(), USER_INSTALL_ARG) != 0;
}

/// Returns the service's arguments: the command line without the install switches.
/// Any other argument that begins with "-" is reported and ends the process with status 1.
std::vector<std::string> parseAppArgs(const std::vector<std::string>& commandLine) {
    std::vector<std::string> appArgs;
    for (const std::string& arg : commandLine) {
        if (arg == USER_INSTALL_ARG || arg == SYS_INSTALL_ARG) {
            continue;
        }
        if (arg.starts_with('-')) {
            std::cerr << "Illegal argument encountered: '" << arg << "'." << std::endl;
            std::exit(EXIT_FAILURE);
        }
        appArgs.push_back(arg);
    }
    return appArgs;
}

bool isArgInWhiteList(const std::string& arg) {
    return std::any_of(WHITE_LIST_FILE_ARGS.begin(), WHITE_LIST_FILE_ARGS.end(),
                       [&arg](std::string_view prefix) { return arg.starts_with(prefix); });
}

/// Returns the lines of the override file, each a whole option, byte for byte; none if it cannot
/// be opened. A line that is not allowed is reported and ends the process with status 1. A read
/// error counts as the end of the file; libc++ keeps the line that it cuts short, libstdc++ does
/// not.
std::vector<std::string> getJVMArgsFromFile(bool isUser) {
    std::vector<std::string> fileArgs;
    std::ifstream file(launcher::getJVMArgsFilePath(/*isSystemInstall=*/!isUser));
    if (!file.is_open()) {
        return fileArgs;
    }
    std::cout << "jvm_args file found, loading arguments" << std::endl;
    // Otherwise getline would treat an allocation failure as the end of the file.
    file.exceptions(std::ios_base::badbit);
    try {
        std::string line;
        while (std::getline(file, line)) {
            if (!isArgInWhiteList(line)) {
                std::cerr << "Invalid parameter found inside jvm_args file: '" << line << "'"
                          << std::endl;
                std::exit(EXIT_FAILURE);
            }
            fileArgs.push_back(line);
        }
    } catch (const std::ios_base::failure&) {
        // A read error: the end of the file.
    }
    return fileArgs;
}

/// Returns the VM options in order: defaults, override file, marker of a per-user run.
std::vector<std::string> getJVMArgs(bool isUser) {
    std::vector<std::string> jvmArgs = launcher::getDefaultJVMArgs(/*isSystemInstall=*/!isUser);
    const std::vector<std::string> fileArgs = getJVMArgsFromFile(isUser);
    jvmArgs.insert(jvmArgs.end(), fileArgs.begin(), fileArgs.end());
    if (isUser) {
        jvmArgs.emplace_back(USER_INSTALL_ARG);
    }
    return jvmArgs;
}

/// Writes each element and a line feed to standard output without flushing.
constexpr auto print = [](const std::vector<std::string>& list) {
    std::copy(list.begin(), list.end(), std::ostream_iterator<std::string>(std::cout, "\n"));
};

void printJVMAndAppArgs(const std::vector<std::string>& jvmArgs,
                        const std::vector<std::string>& appArgs) {
    std::cout << "JVM arguments in use: \n";
    print(jvmArgs);
    std::cout << "Arguments in use: \n";
    print(appArgs);
    std::cout << std::endl;
}

}  // namespace

namespace launcher {

void printUserLevel(bool isUser) {
    std::cout << "Launching as " << (isUser ? "user" : "system") << std::endl;
}

}  // namespace launcher

int main(int argc, char* argv[]) {
    static_cast<void>(IDENTIFICATION[0]);
    const std::vector<std::string> commandLine(argv + 1, argv + argc);
    const bool isUser = isUserInstall(commandLine);
    launcher::printUserLevel(isUser);
    const std::vector<std::string> appArgs = parseAppArgs(commandLine);
    const std::vector<std::string> jvmArgs = getJVMArgs(isUser);
    printJVMAndAppArgs(jvmArgs, appArgs);

    const launcher::JMethod serviceMain{"com/vaultory/service/QRService", "main",
                                        "([Ljava/lang/String;)V"};
    try {
        launcher::JVM jvm(jvmArgs,
                          "-Djava.class.path=../Resources/lib/com.vaultory.desktop.jar"
                          ":../Resources/lang");
        const std::uint64_t id = jvm.registerMethod(serviceMain);
        std::cout << "Starting service." << std::endl;
        jvm.callJMethod(id, appArgs);
        std::cout << "Service is complete." << std::endl;
    } catch (const std::runtime_error& error) {
        std::cerr << "Error while interacting with the JVM: \n" << error.what() << std::endl;
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
