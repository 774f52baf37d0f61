#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "format.h"

namespace macho {

/// Ends the process with one line on standard error and SIGABRT, as dyld does.
[[noreturn]] void fail(const std::string& why);

template <typename Value>
Value at(const void* address) {
    Value value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

/// Reads values one after another; does not check for the end.
struct Reader {
    const std::uint8_t* next;

    template <typename Value>
    Value take() {
        const auto value = at<Value>(next);
        next += sizeof value;
        return value;
    }
    /// A number in groups of seven bits, the lowest first.
    std::uint64_t uleb();
    std::string text();
};

/// A section in memory.
struct Section {
    std::string name;
    std::uint8_t* begin;
    std::uint64_t size;
    std::uint32_t type;
};

/// A slice in memory, at an address of the kernel's choice; never unmapped.
class Image {
public:
    /// Maps the segments of the file, loads the libraries, fixes every pointer, lazy ones
    /// included, and protects the segments. Fails on whatever it does not understand.
    explicit Image(const std::uint8_t* file);

    /// The section of this name, or null.
    const Section* section(const std::string& name) const;

    std::uint8_t* header = nullptr;  // what the unwinding entries count from
    std::uint8_t* entry = nullptr;   // main
    std::vector<Section> sections;

private:
    /// A segment in memory. It has no bytes if nothing may access it.
    struct Segment {
        std::uint8_t* begin;
        std::uint64_t size;
        int protection;
    };

    void checkHeader() const;
    void listCommands();
    void reserve();
    format::DyldInfo obeyCommands();
    void addSegment(const std::uint8_t* command);
    void addSection(const format::Section& section);
    void loadLibraries();
    void loadRuntime();
    void rebase(const format::Table& table) const;
    void bind(const format::Table& table) const;
    void protect() const;

    std::uint8_t* inMemory(std::uint64_t address) const;
    std::uint8_t* pointerAt(std::size_t segment, std::uint64_t offset) const;
    void* resolve(std::uint64_t library, const std::string& symbol) const;

    const std::uint8_t* file;
    std::vector<const std::uint8_t*> commands;
    std::uint8_t* memory = nullptr;  // where the lowest address of the file lies
    std::uint64_t lowest = 0;
    std::uint64_t size = 0;
    std::vector<Segment> segments;
    std::vector<std::string> libraries;
    std::vector<std::string> runPaths;
    void* runtime = nullptr;
};

/// Hands the unwinding entries of the image to the unwinder of this process.
void registerUnwinding(const Image& image);

/// The stand-in for a symbol of libSystem; fails, with its name, if there is none. One that
/// the program asks for but must never call fails when it is called.
void* libSystem(const std::string& name);

/// Adapts what the runtime library offers to the slice's calling convention.
void* libjvm(void* runtime, const std::string& name);

}  // namespace macho
