/// The file format: load commands, segments, libraries, and the opcodes that fix pointers.

#include "image.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <set>

namespace macho {

namespace {

#ifdef __x86_64__
constexpr std::uint32_t PROCESSOR = format::PROCESSOR_X86_64;
#else
constexpr std::uint32_t PROCESSOR = format::PROCESSOR_ARM64;
#endif

/// The load commands that a start on Linux does not depend on.
const std::set<std::uint32_t> WITHOUT_EFFECT = {
    format::SYMBOLS,      format::DYNAMIC_SYMBOLS, format::LOADER_NAME,
    format::UUID,         format::SIGNATURE,       format::FUNCTION_STARTS,
    format::DATA_IN_CODE, format::SOURCE_VERSION,  format::BUILD_VERSION,
};

/// Sections with thread-local variables would need more than a mapping, and are not among these.
const std::set<std::uint32_t> SECTION_TYPES = {
    format::REGULAR,
    format::ZERO_FILLED,
    format::C_STRINGS,
    format::SYMBOL_POINTERS,
    format::LAZY_SYMBOL_POINTERS,
    format::SYMBOL_STUBS,
    format::INITIALISERS,
    format::COALESCED,
};

constexpr std::size_t WORD = sizeof(void*);

std::string hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

/// The text of a field of 16 characters, which has a terminator only if it is shorter.
std::string fixedText(const char (&field)[16]) {
    return {field, strnlen(field, sizeof field)};
}

std::uint32_t kindOf(const std::uint8_t* command) {
    return at<format::Command>(command).kind;
}

std::string pathOf(const std::uint8_t* command) {
    const auto offset = at<format::PathCommand>(command).pathOffset;
    return reinterpret_cast<const char*>(command + offset);
}

/// The segment that keeps the lowest addresses free; nothing may access it.
bool isInaccessible(const format::Segment& segment) {
    return segment.initialProtection == 0;
}

}  // namespace

std::uint64_t Reader::uleb() {
    std::uint64_t value = 0;
    unsigned shift = 0;
    while (true) {
        const auto byte = take<std::uint8_t>();
        value |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
        if (byte < 0x80) {
            return value;
        }
        shift += 7;
    }
}

std::string Reader::text() {
    const std::string value = reinterpret_cast<const char*>(next);
    next += value.size() + 1;
    return value;
}

Image::Image(const std::uint8_t* contents) : file(contents) {
    checkHeader();
    listCommands();
    reserve();
    const format::DyldInfo fixes = obeyCommands();
    loadLibraries();
    rebase(fixes.rebase);
    bind(fixes.bind);
    bind(fixes.lazyBind);
    protect();
}

const Section* Image::section(const std::string& name) const {
    const auto found = std::find_if(sections.begin(), sections.end(),
                                    [&](const Section& each) { return each.name == name; });
    return found == sections.end() ? nullptr : &*found;
}

void Image::checkHeader() const {
    const auto head = at<format::Header>(file);
    if (head.magic != format::MAGIC_64 || head.processor != PROCESSOR ||
        head.fileType != format::EXECUTABLE) {
        fail("not an executable for this processor");
    }
}

void Image::listCommands() {
    const std::uint8_t* command = file + sizeof(format::Header);
    for (std::uint32_t i = 0; i < at<format::Header>(file).commandCount; ++i) {
        commands.push_back(command);
        command += at<format::Command>(command).size;
    }
}

/// Reserves memory from the lowest to the highest address of all accessible segments, so that their
/// distances from each other stay.
void Image::reserve() {
    lowest = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t highest = 0;
    for (const std::uint8_t* const command : commands) {
        if (kindOf(command) != format::LOAD_SEGMENT) {
            continue;
        }
        const auto segment = at<format::Segment>(command);
        if (!isInaccessible(segment)) {
            lowest = std::min(lowest, segment.address);
            highest = std::max(highest, segment.address + segment.size);
        }
    }
    size = highest - lowest;
    void* const place =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED) {
        fail("no memory for the segments");
    }
    memory = static_cast<std::uint8_t*>(place);
}

/// Does what each load command says, except to fix pointers: where their tables are is returned.
format::DyldInfo Image::obeyCommands() {
    format::DyldInfo fixes{};
    for (const std::uint8_t* const command : commands) {
        switch (kindOf(command)) {
            case format::LOAD_SEGMENT:
                addSegment(command);
                break;
            case format::LOAD_LIBRARY:
                libraries.push_back(pathOf(command));
                break;
            case format::RUN_PATH:
                runPaths.push_back(pathOf(command));
                break;
            case format::MAIN:
                entry = header + at<format::MainCommand>(command).entryOffset;
                break;
            case format::DYLD_INFO_ONLY:
                fixes = at<format::DyldInfo>(command);
                break;
            default:
                if (!WITHOUT_EFFECT.contains(kindOf(command))) {
                    fail("load command " + hex(kindOf(command)) + " is not understood");
                }
        }
    }
    if (entry == nullptr || fixes.command.kind != format::DYLD_INFO_ONLY) {
        fail("no LC_MAIN or no LC_DYLD_INFO_ONLY");
    }
    if (fixes.weakBind.size != 0) {
        fail("weak binding is not understood");
    }
    return fixes;
}

void Image::addSegment(const std::uint8_t* command) {
    const auto segment = at<format::Segment>(command);
    if (isInaccessible(segment)) {
        segments.push_back({nullptr, 0, PROT_NONE});
        return;
    }
    std::uint8_t* const begin = inMemory(segment.address);
    std::memcpy(begin, file + segment.fileOffset, segment.fileSize);
    if (segment.fileOffset == 0 && segment.fileSize != 0) {
        header = begin;
    }
    const bool readOnly = (segment.flags & format::READ_ONLY_ONCE_FIXED) != 0;
    const int protection = readOnly ? PROT_READ : static_cast<int>(segment.initialProtection);
    segments.push_back({begin, segment.size, protection});
    const std::uint8_t* const first = command + sizeof segment;
    for (std::uint32_t i = 0; i < segment.sectionCount; ++i) {
        addSection(at<format::Section>(first + i * sizeof(format::Section)));
    }
}

void Image::addSection(const format::Section& section) {
    const std::uint32_t type = section.flags & 0xFFU;
    if (!SECTION_TYPES.contains(type)) {
        fail("section type " + hex(type) + " is not understood");
    }
    sections.push_back({fixedText(section.name), inMemory(section.address), section.size, type});
}

void Image::loadLibraries() {
    for (const std::string& library : libraries) {
        if (library == "/usr/lib/libSystem.B.dylib") {
            continue;  // its functions are those of this process
        }
        if (library == "@rpath/libjvm.dylib") {
            loadRuntime();
        }
        if (library != "@rpath/libjvm.dylib" || runtime == nullptr) {
            fail("Library not loaded: " + library);
        }
    }
}

/// Loads the runtime from the first run path that has it, under the name it has on Linux.
void Image::loadRuntime() {
    for (const std::string& path : runPaths) {
        const std::string name = path + "/libjvm.so";
        const int found = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (found < 0) {
            continue;
        }
        close(found);
        runtime = dlopen(name.c_str(), RTLD_NOW);
        if (runtime == nullptr) {
            fail(dlerror());
        }
        return;
    }
}

/// Adds the distance from the file's addresses to those in memory to each pointer of the table.
void Image::rebase(const format::Table& table) const {
    std::size_t segment = 0;
    std::uint64_t offset = 0;
    const auto rebaseOne = [&] {
        std::uint8_t* const pointer = pointerAt(segment, offset);
        const std::uint8_t* const value = inMemory(at<std::uint64_t>(pointer));
        std::memcpy(pointer, &value, sizeof value);
        offset += WORD;
    };
    const auto rebaseTimes = [&](std::uint64_t times, std::uint64_t skipped) {
        for (std::uint64_t i = 0; i < times; ++i) {
            rebaseOne();
            offset += skipped;
        }
    };

    Reader in{file + table.offset};
    const std::uint8_t* const end = in.next + table.size;
    while (in.next < end) {
        const auto byte = in.take<std::uint8_t>();
        const std::uint64_t immediate = byte & 0x0FU;
        const auto notUnderstood = [&] {
            fail("rebase opcode " + hex(byte) + " is not understood");
        };
        switch (static_cast<format::RebaseOpcode>(byte & 0xF0U)) {
            using enum format::RebaseOpcode;
            case DONE:  // fills the end of the table
                break;
            case SET_TYPE:
                if (immediate != format::TYPE_POINTER) {
                    notUnderstood();
                }
                break;
            case SET_SEGMENT_AND_OFFSET:
                segment = immediate;
                offset = in.uleb();
                break;
            case ADD_TO_OFFSET:
                offset += in.uleb();
                break;
            case ADD_WORDS_TO_OFFSET:
                offset += immediate * WORD;
                break;
            case REBASE_IMMEDIATE_TIMES:
                rebaseTimes(immediate, 0);
                break;
            case REBASE_TIMES:
                rebaseTimes(in.uleb(), 0);
                break;
            case REBASE_AND_SKIP:
                rebaseOne();
                offset += in.uleb();
                break;
            case REBASE_TIMES_SKIPPING: {
                const std::uint64_t times = in.uleb();
                const std::uint64_t skipped = in.uleb();
                rebaseTimes(times, skipped);
                break;
            }
            default:
                notUnderstood();
        }
    }
}

/// Sets each pointer of the table to the address of its symbol.
void Image::bind(const format::Table& table) const {
    std::size_t segment = 0;
    std::uint64_t offset = 0;
    std::uint64_t library = 0;
    std::string symbol;
    const auto bindOne = [&] {
        const void* const value = resolve(library, symbol);
        std::memcpy(pointerAt(segment, offset), &value, sizeof value);
        offset += WORD;
    };

    Reader in{file + table.offset};
    const std::uint8_t* const end = in.next + table.size;
    while (in.next < end) {
        const auto byte = in.take<std::uint8_t>();
        const std::uint64_t immediate = byte & 0x0FU;
        const auto notUnderstood = [&] { fail("bind opcode " + hex(byte) + " is not understood"); };
        switch (static_cast<format::BindOpcode>(byte & 0xF0U)) {
            using enum format::BindOpcode;
            case DONE:  // stands after each symbol of the lazy table, and fills the end of a table
                break;
            case SET_LIBRARY_IMMEDIATE:
                library = immediate;
                break;
            case SET_LIBRARY:
                library = in.uleb();
                break;
            case SET_SYMBOL:
                if (immediate != format::NO_SYMBOL_FLAGS) {
                    notUnderstood();
                }
                symbol = in.text();
                break;
            case SET_TYPE:
                if (immediate != format::TYPE_POINTER) {
                    notUnderstood();
                }
                break;
            case SET_SEGMENT_AND_OFFSET:
                segment = immediate;
                offset = in.uleb();
                break;
            case ADD_TO_OFFSET:
                offset += in.uleb();
                break;
            case BIND:
                bindOne();
                break;
            case BIND_AND_SKIP:
                bindOne();
                offset += in.uleb();
                break;
            case BIND_AND_SKIP_WORDS:
                bindOne();
                offset += immediate * WORD;
                break;
            case BIND_TIMES_SKIPPING: {
                const std::uint64_t times = in.uleb();
                const std::uint64_t skipped = in.uleb();
                for (std::uint64_t i = 0; i < times; ++i) {
                    bindOne();
                    offset += skipped;
                }
                break;
            }
            default:
                notUnderstood();
        }
    }
}

/// Gives each segment its protection, now that nothing is written to it any more.
void Image::protect() const {
    for (const Segment& segment : segments) {
        if (segment.size != 0) {
            mprotect(segment.begin, segment.size, segment.protection);
        }
    }
    __builtin___clear_cache(reinterpret_cast<char*>(memory),
                            reinterpret_cast<char*>(memory + size));
}

/// Where something of the file's address lies now.
std::uint8_t* Image::inMemory(std::uint64_t address) const {
    return memory + (address - lowest);
}

std::uint8_t* Image::pointerAt(std::size_t segment, std::uint64_t offset) const {
    const Segment& found = segments.at(segment);
    if (offset > found.size || found.size - offset < WORD) {
        fail("a pointer to fix lies outside its segment");
    }
    return found.begin + offset;
}

/// The address of the symbol in the library of this number, from 1.
void* Image::resolve(std::uint64_t library, const std::string& symbol) const {
    if (library < 1 || library > libraries.size()) {
        fail("library " + hex(library) + " of " + symbol + " is not understood");
    }
    const bool isRuntime = libraries[library - 1].starts_with('@');
    return isRuntime ? libjvm(runtime, symbol) : libSystem(symbol);
}

}  // namespace macho
