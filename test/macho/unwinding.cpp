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
    record.resize((record.size() + 4 + 7) / 8 * 8 - 4);  // DW_CFA_nop is zero
    add(table, static_cast<std::uint32_t>(record.size()));
    table.insert(table.end(), record.begin(), record.end());
}

/// A CIE and the one FDE that refers to it, all pointers absolute.
void addEntry(Bytes& table, const Entry& entry) {
    Bytes cie;
    add<std::uint32_t>(cie, 0);
    cie.push_back(1);
    for (const char letter : {'z', 'P', 'L', 'R', '\0'}) {
        if (entry.personality != nullptr || letter != 'P') {
            cie.push_back(static_cast<std::uint8_t>(letter));
        }
    }
    cie.insert(cie.end(), {1, 0x78, RETURN_ADDRESS});  // alignment factors 1 and -8
    addUleb(cie, entry.personality != nullptr ? 11 : 2);
    if (entry.personality != nullptr) {
        cie.push_back(0);
        add(cie, entry.personality);
    }
    cie.insert(cie.end(), {0, 0});
    const std::size_t begin = table.size();
    addRecord(table, cie);

    Bytes fde;
    add(fde, static_cast<std::uint32_t>(table.size() + 4 - begin));
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

#ifdef __x86_64__
constexpr std::uint32_t DWARF = 4;
// rbx, r12, r13, r14, r15, rbp; entries count them from 1.
constexpr std::uint8_t REGISTERS[] = {3, 12, 13, 14, 15, 6};

/// The registers of a frame without a frame pointer: a permutation, as a mixed-radix number.
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

Bytes instructions(std::uint32_t encoding, const std::uint8_t* function) {
    Bytes result;
    std::uint64_t words = encoding >> 16U & 0xFFU;
    switch (encoding >> 24U & 0xFU) {
        case 1:  // rbp points to the saved rbp
            defineFrame(result, FRAME_POINTER, 16);
            saved(result, FRAME_POINTER, 2);
            for (words += 2; (encoding & 0x7FFFU) != 0;
                 encoding = encoding >> 3U & 0xFFFU, --words) {
                if ((encoding & 7U) > 5) {
                    notUnderstood(encoding);
                }
                if ((encoding & 7U) != 0) {
                    saved(result, REGISTERS[(encoding & 7U) - 1], words);
                }
            }
            break;
        case 3:  // the size is in the instruction that makes the frame, in bytes
            words = at<std::uint32_t>(function + words) / 8 + (encoding >> 13U & 7U);
            [[fallthrough]];
        case 2: {
            defineFrame(result, STACK_POINTER, words * 8);
            const std::uint32_t count = encoding >> 10U & 7U;
            std::uint64_t at = count + 1;
            for (const std::uint8_t number : permutation(encoding & 0x3FFU, count)) {
                saved(result, number, at--);
            }
            break;
        }
        default:
            notUnderstood(encoding);
    }
    saved(result, RETURN_ADDRESS, 1);
    return result;
}
#else
constexpr std::uint32_t DWARF = 3;

Bytes instructions(std::uint32_t encoding, const std::uint8_t*) {
    Bytes result;
    std::uint64_t words = 1;
    switch (encoding >> 24U & 0xFU) {
        case 2:  // a leaf: the return address is in x30
            defineFrame(result, STACK_POINTER, (encoding >> 12U & 0xFFFU) * 16);
            break;
        case 4:  // x29 points to the saved x29
            defineFrame(result, FRAME_POINTER, 16);
            saved(result, RETURN_ADDRESS, words++);
            saved(result, FRAME_POINTER, words++);
            break;
        default:
            notUnderstood(encoding);
    }
    if ((encoding & 0xE0U) != 0) {
        notUnderstood(encoding);
    }
    for (unsigned bit = 0; bit < 12; ++bit) {  // pairs of x19 to x28, then of d8 to d15
        if ((encoding >> bit & 1U) != 0) {
            const auto first =
                static_cast<std::uint8_t>(bit < 5 ? 19 + 2 * bit : 72 + 2 * (bit - 8));
            saved(result, first, words++);
            saved(result, static_cast<std::uint8_t>(first + 1), words++);
        }
    }
    return result;
}
#endif

/// A pointer in one of the encodings that the compiler uses: relative to its own place, of
/// four or eight bytes, and perhaps the address of the pointer that is meant.
const std::uint8_t* pointer(Reader& in, std::uint8_t encoding) {
    const std::uint8_t* const place = in.next;
    const bool narrow = (encoding & 0xFU) == 0xB;
    if ((encoding & 0x7FU) != 0x10 && (encoding & 0x7FU) != 0x1B) {
        notUnderstood(encoding);
    }
    const std::int64_t distance = narrow ? in.take<std::int32_t>() : in.take<std::int64_t>();
    if (distance == 0) {
        return nullptr;
    }
    return (encoding & 0x80U) != 0 ? at<const std::uint8_t*>(place + distance) : place + distance;
}

/// Takes over an FDE of __eh_frame and the CIE it refers to.
Entry copied(const std::uint8_t* fde) {
    Reader in{fde + 4};
    const std::uint8_t* const fdeEnd = in.next + at<std::uint32_t>(fde);
    const std::uint8_t* const cie = in.next - in.take<std::uint32_t>();
    Reader head{cie + 8};
    const auto version = head.take<std::uint8_t>();
    const std::string augmentation = head.text();
    const std::uint64_t codeFactor = head.uleb();
    if (version != 1 || codeFactor != 1 || head.take<std::uint8_t>() != 0x78 ||  // -8
        head.take<std::uint8_t>() != RETURN_ADDRESS || augmentation[0] != 'z') {
        fail("an entry of __eh_frame is not understood");
    }
    const std::uint64_t length = head.uleb();
    const std::uint8_t* const initial = head.next + length;
    Entry entry{nullptr, 0};
    std::uint8_t lsda = 0;
    std::uint8_t address = 0;
    for (const char letter : augmentation.substr(1)) {
        const auto encoding = head.take<std::uint8_t>();
        switch (letter) {
            case 'P':
                entry.personality = pointer(head, encoding);
                break;
            case 'L':
                lsda = encoding;
                break;
            case 'R':
                address = encoding;
                break;
            default:
                fail("an entry of __eh_frame is not understood");
        }
    }
    entry.function = pointer(in, address);
    entry.size = address == 0x10 ? in.take<std::uint64_t>() : in.take<std::uint32_t>();
    const std::uint64_t ownLength = in.uleb();
    const std::uint8_t* const own = in.next + ownLength;
    if (lsda != 0) {
        entry.lsda = pointer(in, lsda);
    }
    entry.instructions.assign(initial, cie + 4 + at<std::uint32_t>(cie));
    entry.instructions.insert(entry.instructions.end(), own, fdeEnd);
    return entry;
}

/// __unwind_info: an index of pages, each a list of functions in the order of addresses.
class Entries {
public:
    explicit Entries(const Image& theImage)
        : image(theImage), info(theImage.section("__unwind_info")->begin) {
        const std::uint8_t* const index = info + field(20);
        for (std::uint32_t i = 0; i + 1 < field(24); ++i) {
            page(index + 12 * i);
        }
        add(table, 0);
    }

    Bytes table;

private:
    std::uint32_t field(std::uint64_t offset) const { return at<std::uint32_t>(info + offset); }

    void page(const std::uint8_t* index) {
        const auto base = at<std::uint32_t>(index);
        const auto next = at<std::uint32_t>(index + 12);
        const std::uint8_t* const begin = info + at<std::uint32_t>(index + 4);
        const auto kind = at<std::uint32_t>(begin);
        const std::uint8_t* const list = begin + at<std::uint16_t>(begin + 4);
        const auto count = at<std::uint16_t>(begin + 6);
        if (kind != 2 && kind != 3) {
            fail("a page of __unwind_info is not understood");
        }
        const auto offset = [&](std::uint32_t i) {
            return i == count  ? next
                   : kind == 2 ? at<std::uint32_t>(list + 8UL * i)
                               : base + (at<std::uint32_t>(list + 4UL * i) & 0xFFFFFFU);
        };
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t encoding = 0;
            if (kind == 2) {
                encoding = at<std::uint32_t>(list + 8UL * i + 4);
            } else {
                const std::uint32_t number = at<std::uint32_t>(list + 4UL * i) >> 24U;
                const std::uint32_t common = field(8);
                encoding = number < common
                               ? field(field(4) + 4UL * number)
                               : at<std::uint32_t>(begin + at<std::uint16_t>(begin + 8) +
                                                   4UL * (number - common));
            }
            if (encoding != 0 && offset(i) != offset(i + 1)) {  // 0: not unwound, as on a Mac
                function(encoding, offset(i), offset(i + 1) - offset(i), index);
            }
        }
    }

    void function(std::uint32_t encoding, std::uint32_t offset, std::uint32_t size,
                  const std::uint8_t* index) {
        if ((encoding >> 24U & 0xFU) == DWARF) {
            check(copied(image.section("__eh_frame")->begin + (encoding & 0xFFFFFFU)));
            return;
        }
        Entry entry{image.header + offset, size};
        entry.instructions = instructions(encoding, entry.function);
        const std::uint32_t personality = encoding >> 28U & 3U;
        const bool hasLsda = (encoding >> 30U & 1U) != 0;
        if (personality != 0) {
            entry.personality =
                at<const std::uint8_t*>(image.header + field(field(12) + 4UL * (personality - 1)));
        }
        if (hasLsda) {
            const std::uint8_t* lsda = info + at<std::uint32_t>(index + 8);
            const std::uint8_t* const end = info + at<std::uint32_t>(index + 20);
            for (; lsda != end && at<std::uint32_t>(lsda) != offset; lsda += 8) {
            }
            if (lsda == end) {
                fail("a function's list of handlers is missing");
            }
            entry.lsda = image.header + at<std::uint32_t>(lsda + 4);
        }
        check(entry);
    }

    /// The C++ library, and so the function that finds handlers, is linked into the slice.
    void check(const Entry& entry) {
        const Section& text = *image.section("__text");
        if (entry.personality != nullptr &&
            (entry.personality < text.begin || entry.personality >= text.begin + text.size)) {
            fail("a personality function lies outside the slice's code");
        }
        addEntry(table, entry);
    }

    const Image& image;
    const std::uint8_t* info;
};

}  // namespace

void registerUnwinding(const Image& image) {
    static const Entries entries(image);  // the unwinder keeps the address
    __register_frame(const_cast<std::uint8_t*>(entries.table.data()));
}

}  // namespace macho
