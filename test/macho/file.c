/// The file format: a universal file's slices, load commands, and dyld's rebase and bind opcodes.
#include <dlfcn.h>
#include <endian.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "macho.h"

#ifdef __aarch64__
enum { CPU = 0x0100000C };
#else
enum { CPU = 0x01000007 };
#endif

enum {
    LC_SYMTAB = 0x2,
    LC_DYSYMTAB = 0xB,
    LC_LOAD_DYLIB = 0xC,
    LC_LOAD_DYLINKER = 0xE,
    LC_SEGMENT_64 = 0x19,
    LC_UUID = 0x1B,
    LC_CODE_SIGNATURE = 0x1D,
    LC_FUNCTION_STARTS = 0x26,
    LC_DATA_IN_CODE = 0x29,
    LC_SOURCE_VERSION = 0x2A,
    LC_BUILD_VERSION = 0x32,
};
static const uint32_t LC_RPATH = 0x8000001C;
static const uint32_t LC_DYLD_INFO_ONLY = 0x80000022;
static const uint32_t LC_MAIN = 0x80000028;

/// The address that the slice is linked for, and the memory set aside for its segments.
static const uint64_t LINKED_FOR = 0x100000000;
static const uint64_t IMAGE_SIZE = 64 << 20;

struct SegmentCommand {
    uint32_t command, size;
    char name[16];
    uint64_t address, memorySize, fileOffset, fileSize;
    int32_t maximumProtection, protection;
    uint32_t sectionCount, flags;
};

struct Section {
    char name[16], segment[16];
    uint64_t address, size;
    uint32_t offset, alignment, relocations, relocationCount, flags, reserved[3];
};

static const uint8_t* readFile(const char* path) {
    struct stat status;
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        die("%s cannot be read", path);
    }
    const uint8_t* const file =
        mmap(NULL, (size_t)status.st_size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    close(descriptor);
    if (file == MAP_FAILED) {
        die("%s cannot be mapped", path);
    }
    return file;
}

static const uint8_t* findSlice(const uint8_t* file) {
    const uint32_t* const words = (const uint32_t*)file;
    if (be32toh(words[0]) != 0xCAFEBABE) {
        die("the file is not universal");
    }
    for (uint32_t i = 0; i < be32toh(words[1]); ++i) {
        const uint32_t* const slice = words + 2 + 5 * i;
        if (be32toh(slice[0]) == CPU) {
            return file + be32toh(slice[2]);
        }
    }
    die("the file has no slice for this processor");
}

static void readSections(struct Image* image, const struct SegmentCommand* segment) {
    const struct Section* const sections = (const struct Section*)(segment + 1);
    for (uint32_t i = 0; i < segment->sectionCount; ++i) {
        uint8_t* const memory =
            image->segments[image->segmentCount].begin + sections[i].address - segment->address;
        if ((sections[i].flags & 0xFF) == 0x9) {  // S_MOD_INIT_FUNC_POINTERS
            image->initializers = (void (**)(int, char**, char**, const char**))memory;
            image->initializerCount = sections[i].size / sizeof(void*);
        } else if (strncmp(sections[i].name, "__unwind_info", 16) == 0) {
            image->unwindInfo = memory;
        } else if (strncmp(sections[i].name, "__eh_frame", 16) == 0) {
            image->ehFrame = memory;
        }
    }
}

static void mapSegment(struct Image* image, const struct SegmentCommand* command) {
    struct Segment* const segment = &image->segments[image->segmentCount];
    if (strcmp(command->name, "__PAGEZERO") != 0) {
        if (command->address - LINKED_FOR + command->memorySize > IMAGE_SIZE) {
            die("segment %.16s is out of reach", command->name);
        }
        segment->begin = image->base + (command->address - LINKED_FOR);
        segment->size = command->memorySize;
        segment->protection = command->protection;
        mprotect(segment->begin, segment->size, PROT_READ | PROT_WRITE);
        memcpy(segment->begin, image->file + command->fileOffset, command->fileSize);
        readSections(image, command);
    }
    ++image->segmentCount;
}

void mapImage(struct Image* image, const char* path) {
    image->file = findSlice(readFile(path));
    const uint32_t* const header = (const uint32_t*)image->file;
    if (header[0] != 0xFEEDFACF) {
        die("the slice is not a 64-bit Mach-O file");
    }
    image->base = mmap(NULL, IMAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const uint8_t* at = image->file + 32;
    for (uint32_t i = 0; i < header[4]; ++i, at += ((const uint32_t*)at)[1]) {
        const uint32_t* const command = (const uint32_t*)at;
        if (command[0] == LC_SEGMENT_64) {
            mapSegment(image, (const struct SegmentCommand*)at);
        } else if (command[0] == LC_LOAD_DYLIB) {
            image->libraries[image->libraryCount++] = (const char*)at + command[2];
        } else if (command[0] == LC_RPATH) {
            image->runPaths[image->runPathCount++] = (const char*)at + command[2];
        } else if (command[0] == LC_DYLD_INFO_ONLY) {
            memcpy(image->dyldInfo, command + 2, sizeof image->dyldInfo);
        } else if (command[0] == LC_MAIN) {
            image->entry = *(const uint64_t*)(command + 2);
        } else if (command[0] != LC_SYMTAB && command[0] != LC_DYSYMTAB &&
                   command[0] != LC_LOAD_DYLINKER && command[0] != LC_UUID &&
                   command[0] != LC_CODE_SIGNATURE && command[0] != LC_FUNCTION_STARTS &&
                   command[0] != LC_DATA_IN_CODE && command[0] != LC_SOURCE_VERSION &&
                   command[0] != LC_BUILD_VERSION) {
            die("load command 0x%x is not understood", command[0]);
        }
    }
}

uint64_t readUleb(const uint8_t** at) {
    uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
        const uint8_t byte = *(*at)++;
        value |= (uint64_t)(byte & 0x7F) << shift;
        if (byte < 0x80) {
            return value;
        }
    }
}

/// Adds the distance to the address that the file was linked for to each pointer named.
static void rebase(const struct Image* image) {
    const uint8_t* at = image->file + image->dyldInfo[0];
    const uint8_t* const end = at + image->dyldInfo[1];
    uint8_t* where = NULL;
    while (at < end) {
        const uint8_t opcode = *at & 0xF0;
        const uint64_t immediate = *at++ & 0x0F;
        uint64_t times = 0;
        uint64_t skip = 0;
        switch (opcode) {
            case 0x00:  // DONE
                return;
            case 0x10:  // SET_TYPE_IMM
                if (immediate != 1) {
                    die("rebase type %d is not understood", (int)immediate);
                }
                break;
            case 0x20:  // SET_SEGMENT_AND_OFFSET_ULEB
                where = image->segments[immediate].begin + readUleb(&at);
                break;
            case 0x30:  // ADD_ADDR_ULEB
                where += readUleb(&at);
                break;
            case 0x40:  // ADD_ADDR_IMM_SCALED
                where += immediate * sizeof(void*);
                break;
            case 0x50:  // DO_REBASE_IMM_TIMES
                times = immediate;
                break;
            case 0x60:  // DO_REBASE_ULEB_TIMES
                times = readUleb(&at);
                break;
            case 0x70:  // DO_REBASE_ADD_ADDR_ULEB
                times = 1;
                skip = readUleb(&at);
                break;
            case 0x80:  // DO_REBASE_ULEB_TIMES_SKIPPING_ULEB
                times = readUleb(&at);
                skip = readUleb(&at);
                break;
            default:
                die("rebase opcode 0x%02x is not understood", opcode);
        }
        for (; times > 0; --times, where += sizeof(void*) + skip) {
            *(uint64_t*)where += (uint64_t)image->base - LINKED_FOR;
        }
    }
}

/// Opens the runtime library through the run paths, as .so; libSystem is libsystem.c.
static void* openLibrary(const struct Image* image, const char* name) {
    char path[1024];
    if (strcmp(name, "/usr/lib/libSystem.B.dylib") == 0) {
        return NULL;
    }
    if (strcmp(name, "@rpath/libjvm.dylib") != 0) {
        die("nothing stands in for the library %s", name);
    }
    for (uint32_t i = 0; i < image->runPathCount; ++i) {
        snprintf(path, sizeof path, "%s/libjvm.so", image->runPaths[i]);
        void* const library = dlopen(path, RTLD_NOW);
        if (library != NULL) {
            return library;
        }
        if (access(path, F_OK) == 0) {
            die("Library not loaded: %s (%s)", name, dlerror());
        }
    }
    die("Library not loaded: %s", name);
}

/// Follows the bind opcodes in a part of the file and stores what each import is bound to.
static void bind(const struct Image* image, void** libraries, uint32_t offset, uint32_t size) {
    const uint8_t* at = image->file + offset;
    const uint8_t* const end = at + size;
    uint64_t library = 0;
    const char* name = NULL;
    uint8_t* where = NULL;
    while (at < end) {
        const uint8_t opcode = *at & 0xF0;
        const uint64_t immediate = *at++ & 0x0F;
        switch (opcode) {
            case 0x00:  // DONE: the end, or between two lazy imports
                break;
            case 0x10:  // SET_DYLIB_ORDINAL_IMM
                library = immediate - 1;
                break;
            case 0x40:  // SET_SYMBOL_TRAILING_FLAGS_IMM
                name = (const char*)at;
                at += strlen(name) + 1;
                break;
            case 0x50:  // SET_TYPE_IMM
                if (immediate != 1) {
                    die("bind type %d is not understood", (int)immediate);
                }
                break;
            case 0x70:  // SET_SEGMENT_AND_OFFSET_ULEB
                where = image->segments[immediate].begin + readUleb(&at);
                break;
            case 0x80:  // ADD_ADDR_ULEB
                where += readUleb(&at);
                break;
            case 0x90: {  // DO_BIND
                void* symbol = NULL;
                if (library >= image->libraryCount) {
                    die("%s is imported from library %d, which is not there", name, (int)library);
                } else if (libraries[library] == NULL) {
                    symbol = systemSymbol(name);
                } else if (strcmp(name, "_JNI_CreateJavaVM") == 0) {
                    symbol = dlsym(libraries[library], name + 1);
                }
                if (symbol == NULL) {
                    die("Symbol not found: %s in %s", name, image->libraries[library]);
                }
                *(void**)where = libraries[library] == NULL ? symbol : createJavaVM(symbol);
                where += sizeof(void*);
                break;
            }
            default:
                die("bind opcode 0x%02x is not understood", opcode);
        }
    }
}

void bindImage(struct Image* image) {
    void* libraries[4];
    for (uint32_t i = 0; i < image->libraryCount; ++i) {
        libraries[i] = openLibrary(image, image->libraries[i]);
    }
    if (image->dyldInfo[5] != 0) {
        die("weak imports are not understood");
    }
    rebase(image);
    bind(image, libraries, image->dyldInfo[2], image->dyldInfo[3]);
    bind(image, libraries, image->dyldInfo[6], image->dyldInfo[7]);
    for (uint32_t i = 0; i < image->segmentCount; ++i) {
        if (image->segments[i].begin != NULL) {
            mprotect(image->segments[i].begin, image->segments[i].size,
                     image->segments[i].protection);
            __builtin___clear_cache((char*)image->segments[i].begin,
                                    (char*)image->segments[i].begin + image->segments[i].size);
        }
    }
}
