/// Runs the launcher in this process on what an input says, and compares all that comes
/// of it with what the oracle says. An input is, one after the other:
///
///     one byte   bit 0: there is an override file; 1: there is no program name;
///                2: the class is missing; 3: the method is missing; 4 to 7: less 8, the
///                status with which the VM refuses, unless that is -8
///     one byte   the number of arguments, modulo 32
///     texts      the executable's path, then the arguments, each up to a zero byte
///     the rest   the override file

#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <streambuf>

#include "../unit/executable_path.h"
#include "exit_as_error.h"
#include "oracle.h"
#include "override_file.h"
#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace {

/// Keeps what is written, in a piece for each flush that there was something to flush.
class Console : public std::streambuf {
public:
    explicit Console(std::ostream& replaced) : stream(replaced), previous(replaced.rdbuf(this)) {}
    ~Console() override { stream.rdbuf(previous); }

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    std::vector<std::string> pieces() {
        sync();
        return flushed;
    }

    std::string all() {
        std::string result;
        for (const std::string& piece : pieces()) {
            result += piece;
        }
        return result;
    }

protected:
    int_type overflow(int_type byte) override {
        pending += traits_type::to_char_type(byte);
        return byte;
    }

    std::streamsize xsputn(const char* bytes, std::streamsize size) override {
        pending.append(bytes, static_cast<std::size_t>(size));
        return size;
    }

    int sync() override {
        if (!pending.empty()) {
            flushed.push_back(std::move(pending));
            pending.clear();
        }
        return 0;
    }

private:
    std::ostream& stream;
    std::streambuf* previous;
    std::string pending;
    std::vector<std::string> flushed;
};

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
    runtime::Behaviour behaviour;
    behaviour.createStatus = given.createStatus;
    behaviour.missingClass = given.hasClass ? "" : "com/vaultory/service/QRService";
    behaviour.missingMethod = given.hasMethod ? "" : "main";
    runtime::reset(behaviour);
    executable::liesAt(given.executablePath);
    override_file::liesAt(Oracle::overrideFilePath(given).value_or(""), given.overrideFile);
    std::vector<std::string> arguments;
    if (given.commandLine) {
        arguments.emplace_back("OrvaneService");
        arguments.insert(arguments.end(), given.commandLine->begin(), given.commandLine->end());
    }
    Console output(std::cout);
    Console errors(std::cerr);
    const std::string end = runMain(arguments);
    return {output.pieces(), errors.all(), end, override_file::opened(), runtime::calls()};
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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Oracle oracle(DEFAULT_OPTIONS);
    const Given given = decode({data, size});
    const Outcome expected = oracle.tell(given);
    const Outcome actual = launch(given);
    if (actual != expected) {
        show("expected", expected);
        show("actual", actual);
        std::abort();
    }
    return 0;
}
