/// Runs the launcher in this process on what an input says, and compares all that comes
/// of it with what the oracle says. An input is, one after the other:
///
///     one byte   bit 0: there is an override file; 1: there is no program name;
///                2: the class is missing; 3: the method is missing; 4 to 7: less 8, the
///                status with which the VM refuses, unless that is -8
///     one byte   the number of arguments, modulo 32
///     texts      the executable's path, then the arguments, each up to a zero byte
///     the rest   the override file

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "../unit/executable_path.h"
#include "exit_as_error.h"
#include "oracle.h"
#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace {

/// Keeps what is written to a stream, one piece per flush that had something to flush.
class Console : public std::stringbuf {
public:
    explicit Console(std::ostream& replaced) : stream(replaced), previous(replaced.rdbuf(this)) {}
    ~Console() override { stream.rdbuf(previous); }

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    std::vector<std::string> pieces() {
        sync();
        return flushed;
    }

protected:
    int sync() override {
        if (!str().empty()) {
            flushed.push_back(str());
            str("");
        }
        return 0;
    }

private:
    std::ostream& stream;
    std::streambuf* previous;
    std::vector<std::string> flushed;
};

/// The files of a run, kept in memory: whatever it opens has the content of the override file,
/// or does not exist. Other files are opened as ever while no run is under way.
struct {
    bool underWay = false;
    bool exist = false;
    std::vector<std::string> opened;  // "MODE PATH"
    int memory = memfd_create("override file", MFD_CLOEXEC);

    void begin(const std::optional<std::string>& content) {
        underWay = true;
        exist = content.has_value();
        opened.clear();
        const std::string bytes = content.value_or("");
        if (ftruncate(memory, 0) != 0 ||
            pwrite(memory, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            std::perror("The override file could not be kept in memory");
            std::abort();
        }
    }
} files;

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest(reinterpret_cast<const char*>(data), size) {}

    unsigned byte() {
        if (rest.empty()) {
            return 0;
        }
        const auto first = static_cast<std::uint8_t>(rest.front());
        rest.erase(0, 1);
        return first;
    }

    std::string text() {
        const std::string result = rest.substr(0, rest.find('\0'));
        rest.erase(0, result.size() + 1);
        return result;
    }

    std::string remainder() { return rest; }

private:
    std::string rest;
};

Given decode(Input input) {
    const unsigned flags = input.byte();
    const unsigned arguments = input.byte() % 32;
    Given given;
    given.hasClass = (flags & 4U) == 0;
    given.hasMethod = (flags & 8U) == 0;
    given.createStatus = flags < 16 ? 0 : static_cast<int>(flags >> 4U) - 8;
    given.executablePath = input.text();
    if ((flags & 2U) == 0) {
        given.commandLine.emplace();
        for (unsigned i = 0; i < arguments; ++i) {
            given.commandLine->push_back(input.text());
        }
    }
    if ((flags & 1U) != 0) {
        given.overrideFile = input.remainder();
    }
    return given;
}

std::string runMain(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    try {
        const int argc = static_cast<int>(arguments.size());
        return "status " + std::to_string(launcherMain(argc, argv.data()));
    } catch (const Exited& exited) {
        return "status " + std::to_string(exited.status);
    } catch (const std::out_of_range&) {
        return "uncaught out_of_range";
    } catch (const std::length_error&) {
        return "uncaught length_error";
    }
}

Outcome launch(const Given& given) {
    runtime::reset({.createStatus = given.createStatus,
                    .missingClass = given.hasClass ? "" : "com/vaultory/service/QRService",
                    .missingMethod = given.hasMethod ? "" : "main"});
    executable::liesAt(given.executablePath);
    std::vector<std::string> arguments;
    if (given.commandLine) {
        arguments = *given.commandLine;
        arguments.insert(arguments.begin(), "OrvaneService");
    }
    Console output(std::cout);
    Console errors(std::cerr);
    files.begin(given.overrideFile);
    const std::string end = runMain(arguments);
    files.underWay = false;
    std::string allErrors;
    for (const std::string& piece : errors.pieces()) {
        allErrors += piece;
    }
    return {output.pieces(), allErrors, end, files.opened, runtime::calls()};
}

void show(const std::string& whose, const Outcome& outcome) {
    std::cerr << whose << ": " << outcome.end << "\nstandard error: " << outcome.errors << '\n';
    for (const auto& [title, texts] : {std::pair{"opened", outcome.opened},
                                       {"called", outcome.calls},
                                       {"written", outcome.output}}) {
        for (const std::string& text : texts) {
            std::cerr << title << ": " << text << '\n';
        }
    }
}

}  // namespace

/// Both replace the C library's in the whole program; std::ifstream opens with one of them.
extern "C" FILE* fopen(const char* path, const char* mode) {
    if (!files.underWay) {
        static const auto next = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
        return next(path, mode);
    }
    files.opened.push_back(std::string(mode) + " " + path);
    if (!files.exist) {
        errno = ENOENT;
        return nullptr;
    }
    lseek(files.memory, 0, SEEK_SET);
    return fdopen(dup(files.memory), mode);
}
extern "C" FILE* fopen64(const char* path, const char* mode) {
    return fopen(path, mode);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Given given = decode({data, size});
    const Outcome expected = tell(given);
    const Outcome actual = launch(given);
    if (actual != expected) {
        show("expected", expected);
        show("actual", actual);
        std::abort();
    }
    return 0;
}
