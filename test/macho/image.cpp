/// The file format: load commands, segments, libraries, and the opcodes that fix pointers.

#include "image.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <set>

namespace macho {

namespace {

#ifdef __x86_64__
constexpr std::uint32_t CPU = 0x01000007;
#else
constexpr std::uint32_t CPU = 0x0100000C;
#endif
constexpr std::uint32_t SEGMENT_64 = 0x19;
constexpr std::uint32_t LOAD_DYLIB = 0xC;
constexpr std::uint32_t RPATH = 0x8000001C;
constexpr std::uint32_t MAIN = 0x80000028;
constexpr std::uint32_t DYLD_INFO_ONLY = 0x80000022;
/// Symbol tables, dyld's name, identifiers, versions, lists of functions and of data in
/// code, the signature: nothing that a start depends on here.
const std::set<std::uint32_t> WITHOUT_EFFECT = {0x2, 0xB, 0xE, 0x1B, 0x1D, 0x26, 0x29, 0x2A, 0x32};
/// Plain, zero-filled, text, pointers, stubs, initialisers, coalesced: no thread-local ones.
const std::set<std::uint32_t> SECTION_TYPES = {0x0, 0x1, 0x2, 0x6, 0x7, 0x8, 0x9, 0xB};
constexpr std::uint32_t SEGMENT_READ_ONLY = 0x10;

std::string hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string fixedText(const std::uint8_t* field) {
    const auto* const text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, 16)};
}

}  // namespace

std::uint64_t Reader::uleb() {
    std::uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
        const auto byte = take<std::uint8_t>();
        value |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
        if (byte < 0x80) {
            return value;
        }
    }
}

std::string Reader::text() {
    const std::string value = reinterpret_cast<const char*>(next);
    next += value.size() + 1;
    return value;
}

Image::Image(const std::uint8_t* contents) : file(contents) {
    if (at<std::uint32_t>(file) != 0xFEEDFACF || at<std::uint32_t>(file + 4) != CPU ||
        at<std::uint32_t>(file + 12) != 2) {
        fail("not an executable for this processor");
    }
    const std::uint8_t* command = file + 32;
    for (auto count = at<std::uint32_t>(file + 16); count > 0; --count) {
        commands.push_back(command);
        command += at<std::uint32_t>(command + 4);
    }
    reserve();
    const std::uint8_t* fixes = nullptr;
    for (const std::uint8_t* const each : commands) {
        const auto kind = at<std::uint32_t>(each);
        const auto* const text = reinterpret_cast<const char*>(each + at<std::uint32_t>(each + 8));
        if (kind == SEGMENT_64) {
            addSegment(each);
        } else if (kind == LOAD_DYLIB) {
            libraries.emplace_back(text);
        } else if (kind == RPATH) {
            runPaths.emplace_back(text);
        } else if (kind == MAIN) {
            entry = header + at<std::uint64_t>(each + 8);
        } else if (kind == DYLD_INFO_ONLY) {
            fixes = each;
        } else if (!WITHOUT_EFFECT.contains(kind)) {
            fail("load command " + hex(kind) + " is not understood");
        }
    }
    if (entry == nullptr || fixes == nullptr) {
        fail("no LC_MAIN or no LC_DYLD_INFO_ONLY");
    }
    loadLibraries();
    const auto table = [&](unsigned field) {
        return std::pair(
            file + at<std::uint32_t>(fixes + field),
            file + at<std::uint32_t>(fixes + field) + at<std::uint32_t>(fixes + field + 4));
    };
    fix({table(8).first}, table(8).second, REBASE);
    fix({table(16).first}, table(16).second, BIND);
    if (table(24).first != table(24).second) {
        fail("weak binding is not understood");
    }
    fix({table(32).first}, table(32).second, BIND);
    for (const Segment& segment : segments) {
        if (segment.size != 0) {
            mprotect(segment.begin, segment.size, segment.protection);
        }
    }
    __builtin___clear_cache(reinterpret_cast<char*>(header),
                            reinterpret_cast<char*>(header + segments.at(1).size));
}

const Section* Image::section(const std::string& name) const {
    const auto found = std::find_if(sections.begin(), sections.end(),
                                    [&](const Section& each) { return each.name == name; });
    return found == sections.end() ? nullptr : &*found;
}

/// Memory for all segments but the one that keeps the lowest addresses free.
void Image::reserve() {
    lowest = ~0ULL;
    std::uint64_t highest = 0;
    for (const std::uint8_t* const each : commands) {
        if (at<std::uint32_t>(each) == SEGMENT_64 && at<std::uint32_t>(each + 60) != 0) {
            lowest = std::min(lowest, at<std::uint64_t>(each + 24));
            highest =
                std::max(highest, at<std::uint64_t>(each + 24) + at<std::uint64_t>(each + 32));
        }
    }
    void* const place =
        mmap(nullptr, highest - lowest, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED) {
        fail("no memory for the segments");
    }
    memory = static_cast<std::uint8_t*>(place);
}

void Image::addSegment(const std::uint8_t* command) {
    const auto initial = at<std::uint32_t>(command + 60);
    if (initial == 0) {
        segments.push_back({nullptr, 0, PROT_NONE});
        return;
    }
    const auto address = at<std::uint64_t>(command + 24);
    const auto offset = at<std::uint64_t>(command + 40);
    const auto fileSize = at<std::uint64_t>(command + 48);
    std::uint8_t* const begin = memory + (address - lowest);
    std::memcpy(begin, file + offset, fileSize);
    if (offset == 0 && fileSize != 0) {
        header = begin;
    }
    // The values of VM_PROT_* are those of PROT_*.
    const bool readOnly = (at<std::uint32_t>(command + 68) & SEGMENT_READ_ONLY) != 0;
    segments.push_back(
        {begin, at<std::uint64_t>(command + 32), readOnly ? PROT_READ : static_cast<int>(initial)});
    const std::uint8_t* each = command + 72;
    for (auto count = at<std::uint32_t>(command + 64); count > 0; --count, each += 80) {
        const std::uint32_t type = at<std::uint32_t>(each + 64) & 0xFFU;
        if (!SECTION_TYPES.contains(type)) {
            fail("section type " + hex(type) + " is not understood");
        }
        sections.push_back({fixedText(each), memory + (at<std::uint64_t>(each + 32) - lowest),
                            at<std::uint64_t>(each + 40), type});
    }
}

/// The runtime is looked for in the run paths, under the name it has on Linux.
void Image::loadLibraries() {
    for (const std::string& library : libraries) {
        if (library == "/usr/lib/libSystem.B.dylib") {
            continue;
        }
        for (const std::string& path : runPaths) {
            const std::string name = path + "/libjvm.so";
            const int found = open(name.c_str(), O_RDONLY | O_CLOEXEC);
            if (found >= 0) {
                close(found);
            }
            if (library == "@rpath/libjvm.dylib" && runtime == nullptr && found >= 0) {
                runtime = dlopen(name.c_str(), RTLD_NOW);
                if (runtime == nullptr) {
                    fail(dlerror());
                }
            }
        }
        if (runtime == nullptr) {
            fail("Library not loaded: " + library);
        }
    }
}

std::uint8_t* Image::place(std::size_t segment, std::uint64_t offset) const {
    const Segment& found = segments.at(segment);
    if (offset > found.size || found.size - offset < sizeof(void*)) {
        fail("a pointer to fix lies outside its segment");
    }
    return found.begin + offset;
}

/// What the opcodes of both tables do; the upper half of a byte is the opcode, the lower half an
/// operand. FIX comes with how often, and what is skipped after each pointer.
// clang-format off
enum Image::Action : std::uint8_t {
    NONE, DONE, TYPE, LIBRARY, LIBRARY_ULEB, SYMBOL, SEGMENT, ADD, ADD_WORDS, FIX_ONE, FIX_TIMES,
    FIX_ULEB, FIX_SKIP_ULEB, FIX_SKIP_WORDS, FIX_ULEB_SKIP_ULEB,
};
constexpr Image::Action Image::REBASE[16] = {
    DONE, TYPE, SEGMENT, ADD, ADD_WORDS, FIX_TIMES, FIX_ULEB, FIX_SKIP_ULEB, FIX_ULEB_SKIP_ULEB};
constexpr Image::Action Image::BIND[16] = {
    DONE, LIBRARY, LIBRARY_ULEB, NONE, SYMBOL, TYPE, NONE, SEGMENT, ADD, FIX_ONE, FIX_SKIP_ULEB,
    FIX_SKIP_WORDS, FIX_ULEB_SKIP_ULEB};
// clang-format on

/// Follows a table of opcodes. DONE stands between the symbols of the lazy one, and fills the
/// end of every table.
void Image::fix(Reader in, const std::uint8_t* end, const Action (&actions)[16]) const {
    std::size_t segment = 0;
    std::uint64_t offset = 0;
    std::uint64_t library = 0;
    std::string symbol;
    const auto fix = [&](std::uint64_t times, std::uint64_t skipped) {
        for (; times > 0; --times, offset += sizeof(void*) + skipped) {
            std::uint8_t* const pointer = place(segment, offset);
            const void* const value = library != 0 ? resolve(library, symbol)
                                                   : memory + (at<std::uint64_t>(pointer) - lowest);
            std::memcpy(pointer, &value, sizeof value);
        }
    };
    while (in.next < end) {
        const auto byte = in.take<std::uint8_t>();
        const std::uint64_t low = byte & 0xFU;
        const Action action = actions[byte >> 4U];
        const bool times = action == FIX_ULEB || action == FIX_ULEB_SKIP_ULEB;
        const std::uint64_t count = times ? in.uleb() : action == FIX_TIMES ? low : 1;
        switch (action) {
                // clang-format off
            case DONE: break;
            case LIBRARY: library = low; break;
            case LIBRARY_ULEB: library = in.uleb(); break;
            case SEGMENT: segment = low; offset = in.uleb(); break;
            case ADD: offset += in.uleb(); break;
            case ADD_WORDS: offset += low * sizeof(void*); break;
            case FIX_ONE: case FIX_TIMES: case FIX_ULEB: fix(count, 0); break;
            case FIX_SKIP_ULEB: case FIX_ULEB_SKIP_ULEB: fix(count, in.uleb()); break;
            case FIX_SKIP_WORDS: fix(count, low * sizeof(void*)); break;
            // clang-format on
            default:
                if (action == SYMBOL && low == 0) {  // not weak
                    symbol = in.text();
                } else if (action != TYPE || low != 1) {  // a pointer
                    fail((&actions == &BIND ? "bind opcode " : "rebase opcode ") + hex(byte) +
                         " is not understood");
                }
        }
    }
}

void* Image::resolve(std::uint64_t ordinal, const std::string& name) const {
    if (ordinal < 1 || ordinal > libraries.size()) {
        fail("library " + hex(ordinal) + " of " + name + " is not understood");
    }
    return libraries[ordinal - 1][0] == '@' ? libjvm(runtime, name) : libSystem(name);
}

}  // namespace macho
