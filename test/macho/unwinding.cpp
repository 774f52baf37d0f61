/// Unwinding: each entry of __unwind_info, and each of __eh_frame that one of them names,
/// becomes an entry of one DWARF table. libgcc searches only one table of those whose first
/// function lies below the address, so there must not be two.

#include "image.h"

// Of libgcc; no header declares it.
extern "C" void __register_frame(void* begin);  // NOLINT

namespace macho {

namespace {

constexpr std::uint8_t DEF_CFA = 0x0C;
constexpr std::uint8_t OFFSET_EXTENDED = 0x05;
#ifdef __x86_64__
constexpr std::uint8_t RETURN_ADDRESS = 16;
constexpr std::uint8_t STACK_POINTER = 7;
constexpr std::uint8_t FRAME_POINTER = 6;
#else
constexpr std::uint8_t RETURN_ADDRESS = 30;
constexpr std::uint8_t STACK_POINTER = 31;
constexpr std::uint8_t FRAME_POINTER = 29;
#endif

using Bytes = std::vector<std::uint8_t>;

template <typename Value>
void add(Bytes& to, Value value) {
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(&value);
    to.insert(to.end(), begin, begin + sizeof value);
}

void addUleb(Bytes& to, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7U) {
        add(to, static_cast<std::uint8_t>(value | 0x80U));
    }
    add(to, static_cast<std::uint8_t>(value));
}

/// How one function is unwound; pointers that are null are absent.
struct Entry {
    const std::uint8_t* function;
    std::uint64_t size;
    const std::uint8_t* personality = nullptr;
    const std::uint8_t* lsda = nullptr;
    Bytes instructions = {};
};

/// Appends a record, its length in front, padded to eight bytes.
void addRecord(Bytes& table, Bytes record) {
    const std::size_t padded = (record.size() + sizeof(std::uint32_t) + 7) / 8 * 8;
    record.resize(padded - sizeof(std::uint32_t));  // with zeros, which are DW_CFA_nop
    add(table, static_cast<std::uint32_t>(record.size()));
    table.insert(table.end(), record.begin(), record.end());
}

constexpr std::uint32_t CIE_ID = 0;
constexpr std::uint8_t CIE_VERSION = 1;
constexpr std::uint8_t CODE_FACTOR = 1;
constexpr std::uint8_t DATA_FACTOR = 0x78;  // -8
constexpr std::uint8_t ABSOLUTE = 0;

/// A common information entry: how the instructions of one function are to be read.
Bytes commonEntry(const Entry& entry) {
    const bool hasPersonality = entry.personality != nullptr;
    const std::string augmentation = hasPersonality ? "zPLR" : "zLR";
    Bytes cie;
    add(cie, CIE_ID);
    add(cie, CIE_VERSION);
    cie.insert(cie.end(), augmentation.begin(), augmentation.end());
    add(cie, '\0');
    cie.insert(cie.end(), {CODE_FACTOR, DATA_FACTOR, RETURN_ADDRESS});
    // What the letters stand for: the length of it all, then P, L and R.
    if (hasPersonality) {
        addUleb(cie, 1 + sizeof entry.personality + 2);
        add(cie, ABSOLUTE);
        add(cie, entry.personality);
    } else {
        addUleb(cie, 2);
    }
    cie.insert(cie.end(), {ABSOLUTE, ABSOLUTE});
    return cie;
}

/// A CIE and the one FDE that refers to it, all pointers absolute.
void addEntry(Bytes& table, const Entry& entry) {
    const std::size_t begin = table.size();
    addRecord(table, commonEntry(entry));

    Bytes fde;
    const std::size_t distance = table.size() + sizeof(std::uint32_t) - begin;
    add(fde, static_cast<std::uint32_t>(distance));
    add(fde, entry.function);
    add(fde, entry.size);
    addUleb(fde, sizeof entry.lsda);
    add(fde, entry.lsda);
    fde.insert(fde.end(), entry.instructions.begin(), entry.instructions.end());
    addRecord(table, fde);
}

void defineFrame(Bytes& to, std::uint8_t pointer, std::uint64_t offset) {
    to.push_back(DEF_CFA);
    addUleb(to, pointer);
    addUleb(to, offset);
}

/// The register was saved this many words below the frame's address.
void saved(Bytes& to, std::uint8_t number, std::uint64_t words) {
    to.push_back(OFFSET_EXTENDED);
    addUleb(to, number);
    addUleb(to, words);
}

[[noreturn]] void notUnderstood(std::uint32_t encoding) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", encoding);
    fail(std::string("unwinding entry ") + text + " is not understood");
}

/// Bits FROM to FROM + COUNT - 1.
constexpr std::uint32_t bits(std::uint32_t value, unsigned from, unsigned count) {
    return value >> from & ((1U << count) - 1U);
}

/// How a function is unwound, in bits 24 to 27 of its encoding.
constexpr std::uint32_t modeOf(std::uint32_t encoding) {
    return bits(encoding, 24, 4);
}

#ifdef __x86_64__
constexpr std::uint32_t WITH_FRAME_POINTER = 1;
constexpr std::uint32_t WITHOUT_FRAME_POINTER = 2;
constexpr std::uint32_t WITHOUT_FRAME_POINTER_LARGE = 3;
constexpr std::uint32_t DWARF = 4;
// rbx, r12, r13, r14, r15, rbp; encodings count them from 1.
constexpr std::uint8_t REGISTERS[] = {3, 12, 13, 14, 15, 6};

/// Bits 0 to 14 are up to five registers of three bits each, 0 for none, in the order of their
/// places on the stack; bits 16 to 23 are the distance of the first from the saved rbp, in words.
Bytes withFramePointer(std::uint32_t encoding) {
    Bytes result;
    defineFrame(result, FRAME_POINTER, 16);
    saved(result, FRAME_POINTER, 2);
    const std::uint32_t distance = bits(encoding, 16, 8);
    for (unsigned i = 0; i < 5; ++i) {
        const std::uint32_t number = bits(encoding, 3 * i, 3);
        if (number > 5) {  // rbp is saved by itself
            notUnderstood(encoding);
        }
        if (number != 0) {
            saved(result, REGISTERS[number - 1], distance + 2 - i);
        }
    }
    return result;
}

/// The saved registers of a frame without a frame pointer. NUMBER says which of the possible orders
/// of COUNT registers it is: its first digit chooses among six registers, the next among the five
/// left, and so on.
std::vector<std::uint8_t> permutation(std::uint32_t number, std::uint32_t count) {
    std::vector<std::uint8_t> left(std::begin(REGISTERS), std::end(REGISTERS));
    std::vector<std::uint8_t> chosen;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t weight = 1;
        for (std::uint32_t k = i + 1; k < count; ++k) {
            weight *= 6 - k;
        }
        const auto digit = static_cast<std::ptrdiff_t>(number / weight);
        number %= weight;
        chosen.push_back(left.at(static_cast<std::size_t>(digit)));
        left.erase(left.begin() + digit);
    }
    return chosen;
}

/// Bits 0 to 9 are the permutation, bits 10 to 12 the number of registers.
Bytes withoutFramePointer(std::uint32_t encoding, std::uint64_t frameWords) {
    Bytes result;
    defineFrame(result, STACK_POINTER, frameWords * 8);
    const std::uint32_t count = bits(encoding, 10, 3);
    std::uint64_t words = count + 1;  // the return address is one word below the frame's address
    for (const std::uint8_t number : permutation(bits(encoding, 0, 10), count)) {
        saved(result, number, words);
        --words;
    }
    return result;
}

/// The size of a large frame is in the instruction that makes it, at the offset in bits 16 to 23,
/// in bytes. Bits 13 to 15 are what is pushed besides, in words.
std::uint64_t largeFrameWords(std::uint32_t encoding, const std::uint8_t* function) {
    const auto subtracted = at<std::uint32_t>(function + bits(encoding, 16, 8));
    return subtracted / 8 + bits(encoding, 13, 3);
}

Bytes instructions(std::uint32_t encoding, const std::uint8_t* function) {
    Bytes result;
    switch (modeOf(encoding)) {
        case WITH_FRAME_POINTER:
            result = withFramePointer(encoding);
            break;
        case WITHOUT_FRAME_POINTER:
            result = withoutFramePointer(encoding, bits(encoding, 16, 8));
            break;
        case WITHOUT_FRAME_POINTER_LARGE:
            result = withoutFramePointer(encoding, largeFrameWords(encoding, function));
            break;
        default:
            notUnderstood(encoding);
    }
    saved(result, RETURN_ADDRESS, 1);
    return result;
}
#else
constexpr std::uint32_t LEAF = 2;
constexpr std::uint32_t DWARF = 3;
constexpr std::uint32_t WITH_FRAME_POINTER = 4;
constexpr std::uint8_t X19 = 19;
constexpr std::uint8_t D8 = 72;

/// Bits 0 to 4 say which pairs from x19 to x28 were saved, bits 8 to 11 which from d8 to d15.
Bytes instructions(std::uint32_t encoding, const std::uint8_t*) {
    Bytes result;
    std::uint64_t words = 1;
    const auto savePair = [&](unsigned first) {
        saved(result, static_cast<std::uint8_t>(first), words);
        saved(result, static_cast<std::uint8_t>(first + 1), words + 1);
        words += 2;
    };
    switch (modeOf(encoding)) {
        case LEAF:  // the return address is in x30; bits 12 to 23 are the frame's size
            defineFrame(result, STACK_POINTER, bits(encoding, 12, 12) * 16);
            break;
        case WITH_FRAME_POINTER:  // x29 points to the saved x29, above which is x30
            defineFrame(result, FRAME_POINTER, 16);
            saved(result, RETURN_ADDRESS, 1);
            saved(result, FRAME_POINTER, 2);
            words = 3;
            break;
        default:
            notUnderstood(encoding);
    }
    if (bits(encoding, 5, 3) != 0) {
        notUnderstood(encoding);
    }
    for (unsigned pair = 0; pair < 5; ++pair) {
        if (bits(encoding, pair, 1) != 0) {
            savePair(X19 + 2 * pair);
        }
    }
    for (unsigned pair = 0; pair < 4; ++pair) {
        if (bits(encoding, 8 + pair, 1) != 0) {
            savePair(D8 + 2 * pair);
        }
    }
    return result;
}
#endif

// How a pointer is written in __eh_frame: as the distance from its own place.
constexpr std::uint8_t EIGHT_BYTES = 0x10;
constexpr std::uint8_t FOUR_BYTES = 0x1B;
constexpr std::uint8_t INDIRECT = 0x80;  // it is the address of the pointer that is meant

const std::uint8_t* pointer(Reader& in, std::uint8_t encoding) {
    const std::uint8_t* const place = in.next;
    std::int64_t distance = 0;
    switch (encoding & ~INDIRECT) {
        case EIGHT_BYTES:
            distance = in.take<std::int64_t>();
            break;
        case FOUR_BYTES:
            distance = in.take<std::int32_t>();
            break;
        default:
            notUnderstood(encoding);
    }
    if (distance == 0) {
        return nullptr;
    }
    const std::uint8_t* const found = place + distance;
    return (encoding & INDIRECT) != 0 ? at<const std::uint8_t*>(found) : found;
}

/// Takes over an FDE of __eh_frame and the CIE it refers to.
Entry copied(const std::uint8_t* fde) {
    Reader in{fde};
    const auto fdeLength = in.take<std::uint32_t>();
    const std::uint8_t* const fdeEnd = in.next + fdeLength;
    const std::uint8_t* const distanceField = in.next;
    const std::uint8_t* const cie = distanceField - in.take<std::uint32_t>();

    Reader head{cie};
    const auto cieLength = head.take<std::uint32_t>();
    const std::uint8_t* const cieEnd = head.next + cieLength;
    const auto id = head.take<std::uint32_t>();
    const auto version = head.take<std::uint8_t>();
    const std::string augmentation = head.text();
    const auto codeFactor = head.take<std::uint8_t>();
    const auto dataFactor = head.take<std::uint8_t>();
    const auto returnAddress = head.take<std::uint8_t>();
    if (id != CIE_ID || version != CIE_VERSION || !augmentation.starts_with('z') ||
        codeFactor != CODE_FACTOR || dataFactor != DATA_FACTOR || returnAddress != RETURN_ADDRESS) {
        fail("an entry of __eh_frame is not understood");
    }
    const std::uint64_t augmentationLength = head.uleb();
    const std::uint8_t* const initialInstructions = head.next + augmentationLength;

    Entry entry{nullptr, 0};
    std::uint8_t lsdaEncoding = 0;
    std::uint8_t addressEncoding = 0;
    for (const char letter : augmentation.substr(1)) {
        const auto encoding = head.take<std::uint8_t>();
        switch (letter) {
            case 'P':
                entry.personality = pointer(head, encoding);
                break;
            case 'L':
                lsdaEncoding = encoding;
                break;
            case 'R':
                addressEncoding = encoding;
                break;
            default:
                fail("an entry of __eh_frame is not understood");
        }
    }

    entry.function = pointer(in, addressEncoding);
    if (addressEncoding == EIGHT_BYTES) {
        entry.size = in.take<std::uint64_t>();
    } else {
        entry.size = in.take<std::uint32_t>();
    }
    const std::uint64_t ownLength = in.uleb();
    const std::uint8_t* const ownInstructions = in.next + ownLength;
    if (lsdaEncoding != 0) {
        entry.lsda = pointer(in, lsdaEncoding);
    }
    entry.instructions.assign(initialInstructions, cieEnd);
    entry.instructions.insert(entry.instructions.end(), ownInstructions, fdeEnd);
    return entry;
}

/// Makes the table of all entries of __unwind_info: an index of pages, each a list of functions in
/// the order of their addresses.
class Entries {
public:
    explicit Entries(const Image& theImage)
        : image(theImage),
          section(theImage.section("__unwind_info")->begin),
          info(at<format::UnwindInfo>(section)) {
        for (std::uint32_t i = 0; i + 1 < info.pages.count; ++i) {
            addPage(pageEntry(i), pageEntry(i + 1));
        }
        add(table, 0);
    }

    Bytes table;

private:
    /// A function's offset from the header, and how it is unwound.
    using Function = format::UnwindFunction;

    format::UnwindPageEntry pageEntry(std::uint32_t number) const {
        return at<format::UnwindPageEntry>(section + info.pages.offset +
                                           number * sizeof(format::UnwindPageEntry));
    }

    /// A function ends where the next one begins, the last one of a page where the next page does.
    void addPage(const format::UnwindPageEntry& entry, const format::UnwindPageEntry& next) {
        std::vector<Function> functions = functionsOf(entry);
        functions.push_back({next.firstFunction, 0});
        for (std::size_t i = 0; i + 1 < functions.size(); ++i) {
            const Function& each = functions[i];
            const std::uint32_t size = functions[i + 1].function - each.function;
            if (each.encoding != 0 && size != 0) {  // 0: cannot be unwound, as on a Mac
                addFunction(each, size, entry, next);
            }
        }
    }

    std::vector<Function> functionsOf(const format::UnwindPageEntry& entry) const {
        const std::uint8_t* const begin = section + entry.pageOffset;
        const auto page = at<format::UnwindPage>(begin);
        const std::uint8_t* const list = begin + page.functionsOffset;
        std::vector<Function> functions;
        for (std::uint32_t i = 0; i < page.functionCount; ++i) {
            switch (page.kind) {
                case format::REGULAR_PAGE:
                    functions.push_back(at<Function>(list + i * sizeof(Function)));
                    break;
                case format::COMPRESSED_PAGE: {
                    const auto packed = at<std::uint32_t>(list + i * sizeof(std::uint32_t));
                    functions.push_back({entry.firstFunction + bits(packed, 0, 24),
                                         encodingOf(bits(packed, 24, 8), begin)});
                    break;
                }
                default:
                    fail("a page of __unwind_info is not understood");
            }
        }
        return functions;
    }

    /// The encoding of this number: the first ones are common to all pages, the others of this
    /// page.
    std::uint32_t encodingOf(std::uint32_t number, const std::uint8_t* pageBegin) const {
        const std::uint8_t* list = section + info.commonEncodings.offset;
        if (number >= info.commonEncodings.count) {
            number -= info.commonEncodings.count;
            list = pageBegin + at<format::UnwindPage>(pageBegin).encodingsOffset;
        }
        return at<std::uint32_t>(list + number * sizeof(std::uint32_t));
    }

    void addFunction(const Function& function, std::uint32_t size,
                     const format::UnwindPageEntry& page, const format::UnwindPageEntry& next) {
        const std::uint32_t encoding = function.encoding;
        if (modeOf(encoding) == DWARF) {
            const std::uint32_t offset = bits(encoding, 0, 24);
            addChecked(copied(image.section("__eh_frame")->begin + offset));
            return;
        }
        Entry entry{image.header + function.function, size};
        entry.instructions = instructions(encoding, entry.function);
        const std::uint32_t personality = bits(encoding, 28, 2);
        if (personality != 0) {
            entry.personality = personalityOf(personality - 1);
        }
        const bool hasHandlers = bits(encoding, 30, 1) != 0;
        if (hasHandlers) {
            entry.lsda = handlersOf(function, page.handlersOffset, next.handlersOffset);
        }
        addChecked(entry);
    }

    const std::uint8_t* personalityOf(std::uint32_t number) const {
        const auto offset =
            at<std::uint32_t>(section + info.personalities.offset + number * sizeof(std::uint32_t));
        return at<const std::uint8_t*>(image.header + offset);
    }

    /// The list of handlers of a function, which the index has between these two offsets.
    const std::uint8_t* handlersOf(const Function& function, std::uint32_t begin,
                                   std::uint32_t end) const {
        for (std::uint32_t offset = begin; offset < end; offset += sizeof(format::UnwindHandlers)) {
            const auto each = at<format::UnwindHandlers>(section + offset);
            if (each.function == function.function) {
                return image.header + each.handlers;
            }
        }
        fail("a function's list of handlers is missing");
    }

    /// The C++ library, and so the function that finds handlers, is linked into the slice.
    void addChecked(const Entry& entry) {
        const Section& text = *image.section("__text");
        if (entry.personality != nullptr &&
            (entry.personality < text.begin || entry.personality >= text.begin + text.size)) {
            fail("a personality function lies outside the slice's code");
        }
        addEntry(table, entry);
    }

    const Image& image;
    const std::uint8_t* section;
    const format::UnwindInfo info;
};

}  // namespace

void registerUnwinding(const Image& image) {
    static const Entries entries(image);  // the unwinder keeps the address
    __register_frame(const_cast<std::uint8_t*>(entries.table.data()));
}

}  // namespace macho
