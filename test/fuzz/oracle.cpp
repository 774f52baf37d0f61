#include "oracle.h"

#include <cstdio>
#include <fstream>
#include <string_view>

namespace {

using Texts = std::vector<std::string>;

/// The end of a run, thrown as soon as it is known.
struct End {
    std::string how;
};

/// The lines of a text file that the tests share.
Texts shared(const char* path) {
    std::ifstream file(path);
    Texts all;
    for (std::string line; std::getline(file, line);) all.push_back(line);
    return all;
}

std::string lines(const Texts& texts) {
    std::string all;
    for (const auto& text : texts) all += text + '\n';
    return all;
}

bool perUser(const Texts& commandLine) {
    for (const auto& argument : commandLine)
        if (argument == "-Duser.install=1") return true;
    return false;
}

/// "" of a system-wide run, "/Users/NAME" of a per-user one.
std::string homeOf(bool isUser, std::string_view executable) {
    if (!isUser) return "";
    if (executable.size() >= 1024) executable = "";
    std::string_view directory = executable;
    for (std::size_t end = executable.size(); end-- > 0;) {
        if (executable[end] == '/' || executable[end] == '\\') {
            directory = executable.substr(0, end);
            break;
        }
    }
    std::size_t name = 6;
    for (std::size_t start = 0; start + 7 <= directory.size(); ++start) {
        if (directory.substr(start, 7) == "/Users/") {
            name = start + 7;
            break;
        }
    }
    if (name > directory.size()) throw End{"uncaught out_of_range"};
    std::string home = "/Users/";
    while (name < directory.size() && directory[name] != '/') home += directory[name++];
    return home;
}

Texts linesOf(std::string_view content) {
    Texts all;
    std::string line;
    for (const char byte : content) {
        if (byte == '\n') {
            all.push_back(line);
            line.clear();
        } else {
            line += byte;
        }
    }
    if (!line.empty()) all.push_back(line);
    return all;
}

bool allowed(const std::string& line) {
    static const Texts PREFIXES = shared(SUPPORT "/allowed_prefixes.txt");
    for (const auto& prefix : PREFIXES)
        if (line.substr(0, prefix.size()) == prefix) return true;
    return false;
}

/// As in the runtime's record, which ends a text at a zero byte.
std::string quote(const std::string& text) {
    std::string result = "\"";
    for (const char character : std::string(text.c_str())) {
        if (character == '"' || character == '\\') result += '\\';
        if (character >= ' ' && character <= '~') {
            result += character;
        } else {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(character)));
            result += escaped;
        }
    }
    return result + '"';
}

std::string quoteAll(const Texts& texts) {
    std::string result;
    for (const auto& text : texts) result += (result.empty() ? "[" : ", ") + quote(text);
    return texts.empty() ? "[]" : result + ']';
}

/// What the runtime sees of a run that got as far as its method.
Texts invocation(const Texts& arguments) {
    Texts calls{"AttachCurrentThread(null) = env#2",
                "env#2: FindClass(\"java/lang/String\") = class#2",
                "env#2: NewStringUTF(\"\") = string#1",
                "env#2: NewObjectArray(" + std::to_string(arguments.size()) +
                    ", class#2, string#1) = array#1"};
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto string = "string#" + std::to_string(i + 2);
        calls.push_back("env#2: NewStringUTF(" + quote(arguments[i]) + ") = " + string);
        calls.push_back("env#2: SetObjectArrayElement(array#1, " + std::to_string(i) + ", " +
                        string + ")");
    }
    calls.push_back("env#2: CallStaticVoidMethod(class#1, method#1, array#1 " +
                    quoteAll(arguments) + ")");
    calls.insert(calls.end(), {"env#2: DeleteLocalRef(array#1)", "DetachCurrentThread() = 0",
                               "DestroyJavaVM() = 0"});
    return calls;
}

[[noreturn]] void reject(Outcome& seen, const std::string& message) {
    seen.errors += message;
    throw End{"status 1"};
}

[[noreturn]] void fail(Outcome& seen, const std::string& message) {
    reject(seen, "Error while interacting with the JVM: \n" + message + '\n');
}

Texts applicationArguments(const Texts& commandLine, Outcome& seen) {
    Texts kept;
    for (const auto& argument : commandLine) {
        if (argument == "-Duser.install=0" || argument == "-Duser.install=1") continue;
        if (!argument.empty() && argument.front() == '-') {
            reject(seen, "Illegal argument encountered: '" + argument + "'.\n");
        }
        kept.push_back(argument);
    }
    return kept;
}

Texts vmOptions(bool isUser, const Given& given, Outcome& seen) {
    static const Texts DEFAULTS = shared(SUPPORT "/default_options.txt");
    const std::string home = homeOf(isUser, given.executablePath);
    Texts options;
    for (std::string option : DEFAULTS) {
        if (const auto mark = option.find("{home}"); mark != std::string::npos) {
            option.replace(mark, 6, home);
        }
        options.push_back(option);
    }
    seen.opened.push_back("r " + home + "/Library/Application Support/Quillrest/conf/jvm_args");
    if (given.overrideFile) {
        seen.output.push_back("jvm_args file found, loading arguments\n");
        for (const auto& line : linesOf(*given.overrideFile)) {
            if (!allowed(line)) {
                reject(seen, "Invalid parameter found inside jvm_args file: '" + line + "'\n");
            }
            options.push_back(line);
        }
    }
    if (isUser) options.push_back("-Duser.install=1");
    return options;
}

void createVM(Texts options, const Given& given, Outcome& seen) {
    options.insert(options.begin(),
                   "-Djava.class.path=../Resources/lib/com.vaultory.desktop.jar"
                   ":../Resources/lang");
    const auto status = std::to_string(given.createStatus);
    seen.calls.push_back("JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=" +
                         std::to_string(options.size()) + ", " + quoteAll(options) +
                         ") = " + (given.createStatus == 0 ? "env#1" : status));
    if (given.createStatus != 0) fail(seen, "Error creating JVM: " + status);
}

void findService(const Given& given, Outcome& seen) {
    seen.calls.push_back(std::string("env#1: FindClass(\"com/vaultory/service/QRService\") = ") +
                         (given.hasClass ? "class#1" : "null"));
    if (given.hasClass) {
        seen.calls.push_back(std::string("env#1: GetStaticMethodID(class#1, \"main\", "
                                         "\"([Ljava/lang/String;)V\") = ") +
                             (given.hasMethod ? "method#1" : "null"));
    }
    if (given.hasClass && given.hasMethod) return;
    seen.calls.push_back("DestroyJavaVM() = 0");
    fail(seen, !given.hasClass ? "Class Error. Couldn't find parent class "
                                 "'com/vaultory/service/QRService'"
                               : "Couldn't find method 'main' with proper signature of "
                                 "'([Ljava/lang/String;)V'");
}

[[noreturn]] void run(const Given& given, Outcome& seen) {
    if (!given.commandLine) throw End{"uncaught length_error"};
    const bool isUser = perUser(*given.commandLine);
    seen.output.push_back(isUser ? "Launching as user\n" : "Launching as system\n");
    const Texts arguments = applicationArguments(*given.commandLine, seen);
    const Texts options = vmOptions(isUser, given, seen);
    seen.output.push_back("JVM arguments in use: \n" + lines(options) + "Arguments in use: \n" +
                          lines(arguments) + '\n');
    createVM(options, given, seen);
    findService(given, seen);
    seen.output.push_back("Starting service.\n");
    for (auto& call : invocation(arguments)) seen.calls.push_back(call);
    seen.output.push_back("Service is complete.\n");
    throw End{"status 0"};
}

}  // namespace

Outcome tell(const Given& given) {
    Outcome seen;
    try {
        run(given, seen);
    } catch (const End& end) {
        seen.end = end.how;
    }
    return seen;
}
