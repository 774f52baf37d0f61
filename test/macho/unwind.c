/// Unwinding: turns the compact entries of __unwind_info, and the DWARF entries of __eh_frame that
/// they refer to, into one table of DWARF entries with absolute addresses. It has to be one: libgcc
/// searches only the last registered table that begins below an address.
#include <stdlib.h>
#include <string.h>

#include "macho.h"

void __register_frame(void* table);

enum {
#ifdef __aarch64__
    RETURN_ADDRESS = 30,
    DWARF_MODE = 0x03000000,
#else
    RETURN_ADDRESS = 16,
    DWARF_MODE = 0x04000000,
#endif
    DATA_ALIGNMENT = -8,
    TABLE_SIZE = 1 << 20,
    DW_CFA_OFFSET = 0x80,
    DW_CFA_DEF_CFA = 0x0C,
    HAS_LSDA = 0x40000000,
};

static uint8_t* table;
static uint8_t* next;

static void put(const void* bytes, size_t size) {
    if (next + size > table + TABLE_SIZE - sizeof(uint32_t)) {
        die("the unwinding table is too small");
    }
    memcpy(next, bytes, size);
    next += size;
}

static void putByte(unsigned value) {
    put(&(uint8_t){(uint8_t)value}, 1);
}

static void putAddress(const void* address) {
    put(&address, sizeof address);
}

static void putUleb(uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
        putByte((unsigned)value | 0x80);
    }
    putByte((unsigned)value);
}

static uint8_t* beginEntry(void) {
    uint8_t* const begin = next;
    put(&(uint32_t){0}, sizeof(uint32_t));
    return begin;
}

static void endEntry(uint8_t* begin) {
    while ((next - begin) % 8 != 4) {
        putByte(0);  // DW_CFA_nop
    }
    *(uint32_t*)begin = (uint32_t)(next - begin - 4);
}

struct Bytes {
    const uint8_t* begin;
    size_t size;
};

/// Writes a CIE and an FDE of one function; personality and lsda are null if it has none.
static void writeFunction(const uint8_t* begin, uint64_t size, const void* personality,
                          const void* lsda, struct Bytes initial, struct Bytes instructions) {
    uint8_t* const cie = beginEntry();
    put(&(uint32_t){0}, sizeof(uint32_t));
    putByte(1);
    put("zPLR", 5);
    putUleb(1);
    putByte(DATA_ALIGNMENT & 0x7F);
    putByte(RETURN_ADDRESS);
    putUleb(3 + sizeof(void*));
    putByte(0);  // DW_EH_PE_absptr, also for the LSDA and for addresses
    putAddress(personality);
    putByte(0);
    putByte(0);
    put(initial.begin, initial.size);
    endEntry(cie);

    uint8_t* const fde = beginEntry();
    put(&(uint32_t){(uint32_t)(next - cie)}, sizeof(uint32_t));
    putAddress(begin);
    put(&size, sizeof size);
    putUleb(sizeof(void*));
    putAddress(lsda);
    put(instructions.begin, instructions.size);
    endEntry(fde);
}

#ifndef __aarch64__
/// Instructions of a compact entry, written from the calls below.
struct Program {
    uint8_t bytes[64];
    size_t size;
};

static void add(struct Program* program, unsigned byte) {
    program->bytes[program->size++] = (uint8_t)byte;
}

static void defineCfa(struct Program* program, unsigned reg, uint64_t offset) {
    add(program, DW_CFA_DEF_CFA);
    add(program, reg);
    for (; offset >= 0x80; offset >>= 7) {
        add(program, (unsigned)offset | 0x80);
    }
    add(program, (unsigned)offset);
}

/// The register is saved so many words below the CFA.
static void saved(struct Program* program, unsigned reg, unsigned words) {
    add(program, DW_CFA_OFFSET | reg);
    add(program, words);
}

static const uint8_t REGISTERS[] = {0, 3, 12, 13, 14, 15, 6};  // rbx, r12 to r15, rbp
enum { RBP = 6, RSP = 7 };

/// Saved registers in the order of their addresses, from a permutation of count out of six.
static void savedInOrder(struct Program* program, unsigned count, unsigned permutation) {
    unsigned digits[6] = {0};
    int used[7] = {0};
    if (count > 6) {
        die("an unwinding entry of %u registers is not understood", count);
    }
    for (unsigned i = count; i > 0; --i) {
        digits[i - 1] = permutation % (7 - i);
        permutation /= 7 - i;
    }
    for (unsigned i = 0; i < count; ++i) {
        unsigned reg = 1;
        for (unsigned unused = digits[i]; used[reg] || unused > 0; ++reg) {
            unused -= !used[reg];
        }
        used[reg] = 1;
        saved(program, REGISTERS[reg], count + 1 - i);
    }
}

static void compile(struct Program* program, uint32_t encoding, const uint8_t* function) {
    const uint32_t mode = encoding & 0x0F000000;
    uint64_t size = (encoding >> 16 & 0xFF) * 8;
    if (mode == 0x01000000) {  // rbp holds the frame: five slots of three bits each
        defineCfa(program, RBP, 16);
        saved(program, RETURN_ADDRESS, 1);
        saved(program, RBP, 2);
        for (unsigned i = 0; i < 5; ++i) {
            if ((encoding >> 3 * i & 7) != 0) {
                saved(program, REGISTERS[encoding >> 3 * i & 7], (unsigned)size / 8 + 2 - i);
            }
        }
        return;
    }
    if (mode == 0x03000000) {  // the size is an operand of the function's, plus what is pushed
        uint32_t operand;
        memcpy(&operand, function + (encoding >> 16 & 0xFF), sizeof operand);
        size = operand + (encoding >> 13 & 7) * 8;
    } else if (mode != 0x02000000) {
        die("unwinding entry 0x%08x is not understood", encoding);
    }
    defineCfa(program, RSP, size);
    saved(program, RETURN_ADDRESS, 1);
    savedInOrder(program, encoding >> 10 & 7, encoding & 0x3FF);
}
#endif

/// Reads a value of one of the encodings that the compiler uses and moves *at past it.
static uint64_t readEncoded(const uint8_t** at, unsigned encoding) {
    const uint8_t* const place = *at;
    int64_t value = 0;
    switch (encoding & 0x0F) {
        case 0x00:  // DW_EH_PE_absptr
            memcpy(&value, place, 8);
            *at += 8;
            break;
        case 0x0B: {  // DW_EH_PE_sdata4
            int32_t word;
            memcpy(&word, place, 4);
            value = word;
            *at += 4;
            break;
        }
        default:
            die("DWARF encoding 0x%02x is not understood", encoding);
    }
    if (value != 0 && (encoding & 0x70) == 0x10) {  // DW_EH_PE_pcrel
        value += (int64_t)place;
    } else if ((encoding & 0x70) != 0 && value != 0) {
        die("DWARF encoding 0x%02x is not understood", encoding);
    }
    if (value != 0 && (encoding & 0x80) != 0) {  // DW_EH_PE_indirect
        memcpy(&value, (const void*)value, 8);
    }
    return (uint64_t)value;
}

static uint32_t wordAt(const uint8_t* at) {
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

/// Copies the DWARF entry of a function.
static void copyDwarf(const uint8_t* fde) {
    const uint8_t* const fdeEnd = fde + 4 + wordAt(fde);
    const uint8_t* const cie = fde + 4 - wordAt(fde + 4);
    const uint8_t* const cieEnd = cie + 4 + wordAt(cie);
    const char* const augmentation = (const char*)cie + 9;
    const uint8_t* at = cie + 9 + strlen(augmentation) + 1;
    const uint64_t codeAlignment = readUleb(&at);
    const uint64_t dataAlignment = readUleb(&at);
    const uint64_t returnAddress = *at++;
    if (augmentation[0] != 'z' || codeAlignment != 1 || dataAlignment != (DATA_ALIGNMENT & 0x7F) ||
        returnAddress != RETURN_ADDRESS) {
        die("a DWARF entry with augmentation '%s' is not understood", augmentation);
    }
    uint64_t personality = 0;
    unsigned lsdaEncoding = 0;
    unsigned addressEncoding = 0;
    const uint64_t cieData = readUleb(&at);
    const uint8_t* const initial = at + cieData;
    for (const char* letter = augmentation + 1; *letter != '\0'; ++letter) {
        if (*letter == 'P') {
            const unsigned encoding = *at++;
            personality = readEncoded(&at, encoding);
        } else if (*letter == 'L') {
            lsdaEncoding = *at++;
        } else if (*letter == 'R') {
            addressEncoding = *at++;
        } else {
            die("DWARF augmentation '%s' is not understood", augmentation);
        }
    }
    at = fde + 8;
    const uint64_t begin = readEncoded(&at, addressEncoding);
    const uint64_t size = readEncoded(&at, addressEncoding & 0x0F);
    const uint64_t fdeData = readUleb(&at);
    const uint8_t* const instructions = at + fdeData;
    const uint64_t lsda = personality == 0 ? 0 : readEncoded(&at, lsdaEncoding);
    writeFunction((const uint8_t*)begin, size, (const void*)personality, (const void*)lsda,
                  (struct Bytes){initial, (size_t)(cieEnd - initial)},
                  (struct Bytes){instructions, (size_t)(fdeEnd - instructions)});
}

struct Lookup {
    const struct Image* image;
    const uint8_t* lsdas;  // pairs of a function's and its LSDA's offset, in order
    const uint8_t* lsdasEnd;
    uint32_t personalities;
};

#ifndef __aarch64__
static const void* findLsda(const struct Lookup* lookup, uint32_t function) {
    for (const uint8_t* at = lookup->lsdas; at < lookup->lsdasEnd; at += 8) {
        if (wordAt(at) == function) {
            return lookup->image->base + wordAt(at + 4);
        }
    }
    die("function 0x%x has no language-specific data", function);
}
#endif

static void addFunction(const struct Lookup* lookup, uint32_t function, uint32_t end,
                        uint32_t encoding) {
    const struct Image* const image = lookup->image;
    const uint32_t mode = encoding & 0x0F000000;
    if (mode == 0) {  // none: nothing is thrown through it
        return;
    }
    if (mode == DWARF_MODE) {
        copyDwarf(image->ehFrame + (encoding & 0xFFFFFF));
        return;
    }
#ifdef __aarch64__
    (void)function, (void)end;
    if (mode != 0x02000000) {  // a leaf, whose return address is in its register: neither here
        die("unwinding entry 0x%08x is not understood", encoding);
    }
#else
    const void* personality = NULL;
    const void* lsda = NULL;
    const unsigned index = encoding >> 28 & 3;
    struct Program program = {0};
    if (index != 0) {
        const uint32_t place = wordAt(image->unwindInfo + lookup->personalities + 4 * (index - 1));
        memcpy(&personality, image->base + place, sizeof personality);
    }
    if ((encoding & HAS_LSDA) != 0) {
        lsda = findLsda(lookup, function);
    }
    compile(&program, encoding, image->base + function);
    writeFunction(image->base + function, end - function, personality, lsda,
                  (struct Bytes){program.bytes, program.size}, (struct Bytes){NULL, 0});
#endif
}

void registerUnwinding(const struct Image* image) {
    const uint8_t* const info = image->unwindInfo;
    const uint32_t commonCount = wordAt(info + 8);
    const uint8_t* const common = info + wordAt(info + 4);
    const uint8_t* index = info + wordAt(info + 20);
    struct Lookup lookup = {.image = image, .personalities = wordAt(info + 12)};
    next = table = malloc(TABLE_SIZE);
    if (wordAt(info) != 1) {
        die("unwinding information of version %u is not understood", wordAt(info));
    }
    lookup.lsdas = info + wordAt(index + 8);
    lookup.lsdasEnd = info + wordAt(index + 12 * (wordAt(info + 24) - 1) + 8);
    for (uint32_t i = 0; i + 1 < wordAt(info + 24); ++i, index += 12) {
        const uint8_t* const page = info + wordAt(index + 4);
        const uint8_t* const entries = page + (wordAt(page + 4) & 0xFFFF);
        const uint32_t count = wordAt(page + 4) >> 16;
        const uint32_t kind = wordAt(page);
        for (uint32_t j = 0; j < count; ++j) {
            const int last = j + 1 == count;
            if (kind == 2) {  // each with its encoding
                const uint8_t* const entry = entries + 8 * j;
                addFunction(&lookup, wordAt(entry), wordAt(last ? index + 12 : entry + 8),
                            wordAt(entry + 4));
            } else if (kind == 3) {  // each with the number of an encoding
                const uint8_t* const entry = entries + 4 * j;
                const uint32_t number = wordAt(entry) >> 24;
                const uint8_t* const own = page + (wordAt(page + 8) & 0xFFFF);
                addFunction(
                    &lookup, wordAt(index) + (wordAt(entry) & 0xFFFFFF),
                    last ? wordAt(index + 12) : wordAt(index) + (wordAt(entry + 4) & 0xFFFFFF),
                    wordAt(number < commonCount ? common + 4 * number
                                                : own + 4 * (number - commonCount)));
            } else {
                die("an unwinding page of kind %u is not understood", kind);
            }
        }
    }
    *(uint32_t*)next = 0;
    __register_frame(table);
}
