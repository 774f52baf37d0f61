#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace macho {

/// Ends the process with one line on standard error and SIGABRT, as dyld does.
[[noreturn]] void fail(const std::string& why);

template <typename Value>
Value at(const void* address) {
    Value value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

/// Reads numbers one after another; has no end of its own.
struct Reader {
    const std::uint8_t* next;

    template <typename Value>
    Value take() {
        const auto value = at<Value>(next);
        next += sizeof value;
        return value;
    }
    std::uint64_t uleb();
    std::string text();
};

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
    struct Segment {
        std::uint8_t* begin;
        std::uint64_t size;
        int protection;
    };

    void reserve();
    void addSegment(const std::uint8_t* command);
    void loadLibraries();
    enum Action : std::uint8_t;
    static const Action REBASE[16];
    static const Action BIND[16];
    void fix(Reader in, const std::uint8_t* end, const Action (&actions)[16]) const;
    void* resolve(std::uint64_t ordinal, const std::string& name) const;
    std::uint8_t* place(std::size_t segment, std::uint64_t offset) const;

    const std::uint8_t* file;
    std::vector<const std::uint8_t*> commands;
    std::uint8_t* memory = nullptr;
    std::uint64_t lowest = 0;
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
