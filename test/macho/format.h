#pragma once

#include <cstdint>

/// What the loader reads of a Mach-O file, laid out as in the file. Offsets of text and of tables
/// count from the beginning of the record or of the file, as each comment says.
namespace macho::format {

struct Header {
    std::uint32_t magic;
    std::uint32_t processor;
    std::uint32_t subtype;
    std::uint32_t fileType;
    std::uint32_t commandCount;
    std::uint32_t commandsSize;
    std::uint32_t flags;
    std::uint32_t reserved;
};
constexpr std::uint32_t MAGIC_64 = 0xFEEDFACF;
constexpr std::uint32_t PROCESSOR_X86_64 = 0x01000007;
constexpr std::uint32_t PROCESSOR_ARM64 = 0x0100000C;
constexpr std::uint32_t EXECUTABLE = 2;

/// What every load command begins with.
struct Command {
    std::uint32_t kind;
    std::uint32_t size;
};
constexpr std::uint32_t LOAD_SEGMENT = 0x19;
constexpr std::uint32_t LOAD_LIBRARY = 0xC;
constexpr std::uint32_t RUN_PATH = 0x8000001C;
constexpr std::uint32_t MAIN = 0x80000028;
constexpr std::uint32_t DYLD_INFO_ONLY = 0x80000022;

constexpr std::uint32_t SYMBOLS = 0x2;
constexpr std::uint32_t DYNAMIC_SYMBOLS = 0xB;
constexpr std::uint32_t LOADER_NAME = 0xE;
constexpr std::uint32_t UUID = 0x1B;
constexpr std::uint32_t SIGNATURE = 0x1D;
constexpr std::uint32_t FUNCTION_STARTS = 0x26;
constexpr std::uint32_t DATA_IN_CODE = 0x29;
constexpr std::uint32_t SOURCE_VERSION = 0x2A;
constexpr std::uint32_t BUILD_VERSION = 0x32;

struct Segment {
    Command command;
    char name[16];
    std::uint64_t address;
    std::uint64_t size;
    std::uint64_t fileOffset;
    std::uint64_t fileSize;
    std::uint32_t maximumProtection;
    std::uint32_t initialProtection;  // its bits are those of mprotect
    std::uint32_t sectionCount;       // the sections follow the segment
    std::uint32_t flags;
};
constexpr std::uint32_t READ_ONLY_ONCE_FIXED = 0x10;

struct Section {
    char name[16];
    char segmentName[16];
    std::uint64_t address;
    std::uint64_t size;
    std::uint32_t fileOffset;
    std::uint32_t alignment;
    std::uint32_t relocationOffset;
    std::uint32_t relocationCount;
    std::uint32_t flags;  // the lowest byte is the type
    std::uint32_t reserved[3];
};
constexpr std::uint32_t REGULAR = 0x0;
constexpr std::uint32_t ZERO_FILLED = 0x1;
constexpr std::uint32_t C_STRINGS = 0x2;
constexpr std::uint32_t SYMBOL_POINTERS = 0x6;
constexpr std::uint32_t LAZY_SYMBOL_POINTERS = 0x7;
constexpr std::uint32_t SYMBOL_STUBS = 0x8;
constexpr std::uint32_t INITIALISERS = 0x9;
constexpr std::uint32_t COALESCED = 0xB;

/// LOAD_LIBRARY and RUN_PATH: a path, at an offset from the beginning of the command.
struct PathCommand {
    Command command;
    std::uint32_t pathOffset;
};

struct MainCommand {
    Command command;
    std::uint64_t entryOffset;  // from the header
    std::uint64_t stackSize;
};

/// A table of opcodes; the offset is from the beginning of the file.
struct Table {
    std::uint32_t offset;
    std::uint32_t size;
};

struct DyldInfo {
    Command command;
    Table rebase;
    Table bind;
    Table weakBind;
    Table lazyBind;
    Table exports;
};

/// The upper half of a byte in the table "rebase"; the lower half is an operand, the immediate.
enum class RebaseOpcode : std::uint8_t {
    DONE = 0x00,
    SET_TYPE = 0x10,
    SET_SEGMENT_AND_OFFSET = 0x20,
    ADD_TO_OFFSET = 0x30,
    ADD_WORDS_TO_OFFSET = 0x40,
    REBASE_IMMEDIATE_TIMES = 0x50,
    REBASE_TIMES = 0x60,
    REBASE_AND_SKIP = 0x70,
    REBASE_TIMES_SKIPPING = 0x80,
};

/// The same in the tables of bindings.
enum class BindOpcode : std::uint8_t {
    DONE = 0x00,
    SET_LIBRARY_IMMEDIATE = 0x10,
    SET_LIBRARY = 0x20,
    SET_SPECIAL_LIBRARY = 0x30,
    SET_SYMBOL = 0x40,
    SET_TYPE = 0x50,
    SET_ADDEND = 0x60,
    SET_SEGMENT_AND_OFFSET = 0x70,
    ADD_TO_OFFSET = 0x80,
    BIND = 0x90,
    BIND_AND_SKIP = 0xA0,
    BIND_AND_SKIP_WORDS = 0xB0,
    BIND_TIMES_SKIPPING = 0xC0,
};
constexpr std::uint64_t TYPE_POINTER = 1;
constexpr std::uint64_t NO_SYMBOL_FLAGS = 0;

/// An array in __unwind_info; the offset is from the section's beginning.
struct Array {
    std::uint32_t offset;
    std::uint32_t count;
};

/// What __unwind_info begins with.
struct UnwindInfo {
    std::uint32_t version;
    Array commonEncodings;  // 32 bits each, for all pages
    Array personalities;    // 32 bits each, an offset from the header to a pointer
    Array pages;            // UnwindPageEntry; the last one only marks the end
};

struct UnwindPageEntry {
    std::uint32_t firstFunction;  // an offset from the header, as are all functions
    std::uint32_t pageOffset;     // from the section's beginning
    std::uint32_t
        handlersOffset;  // from the section's beginning, UnwindHandlers up to the next page's
};

struct UnwindPage {
    std::uint32_t kind;
    std::uint16_t functionsOffset;  // from the page's beginning, as is the next offset
    std::uint16_t functionCount;
    std::uint16_t encodingsOffset;  // this and the next field only of a compressed page
    std::uint16_t encodingCount;
};
constexpr std::uint32_t REGULAR_PAGE = 2;     // of UnwindFunction
constexpr std::uint32_t COMPRESSED_PAGE = 3;  // of 32 bits each: number of the encoding, function

struct UnwindFunction {
    std::uint32_t function;
    std::uint32_t encoding;
};

struct UnwindHandlers {
    std::uint32_t function;
    std::uint32_t handlers;  // an offset from the header
};

}  // namespace macho::format
