"""Reads a macOS executable: the slices of a universal file, their load commands, the symbols
they ask of libraries, and their signature. Raises struct.error, AssertionError or IndexError
for a file that is none."""
import hashlib
import struct

MH_EXECUTE = 2
MH_TWOLEVEL = 0x80
MH_PIE = 0x200000
ARCHITECTURES = {0x01000007: "x86_64", 0x0100000C: "arm64"}

LC_SYMTAB = 0x2
LC_LOAD_DYLIB = 0xC
LC_RPATH = 0x8000001C
LC_CODE_SIGNATURE = 0x1D
LC_VERSION_MIN_MACOSX = 0x24
LC_BUILD_VERSION = 0x32
# Weak, re-exported, lazy and upward dependencies: none is expected, so each counts as one.
LC_LIBRARIES = (LC_LOAD_DYLIB, 0x80000018, 0x8000001F, 0x20, 0x80000023)

CODE_DIRECTORY = 0
ENTITLEMENTS = 5


def slices(data):
    """{architecture: bytes} of a universal file; AssertionError if one stands twice."""
    magic, count = struct.unpack_from(">II", data)
    assert magic == 0xCAFEBABE, hex(magic)
    found = {}
    for index in range(count):
        cpu, _, offset, size, _ = struct.unpack_from(">5I", data, 8 + 20 * index)
        assert ARCHITECTURES[cpu] not in found and offset + size <= len(data)
        found[ARCHITECTURES[cpu]] = data[offset:offset + size]
    return found


def text_at(data, offset):
    return data[offset:data.index(b"\0", offset)].decode()


class Slice:
    """One architecture's executable."""

    def __init__(self, data):
        self.data = data
        magic, cpu, _, self.file_type, count, size, self.flags, _ = struct.unpack_from("<8I", data)
        assert magic == 0xFEEDFACF, hex(magic)
        self.architecture = ARCHITECTURES[cpu]
        self.commands = []
        offset = 32
        for _ in range(count):
            command, length = struct.unpack_from("<II", data, offset)
            self.commands.append((command, data[offset:offset + length]))
            offset += length
        assert offset == 32 + size

    def bodies(self, *wanted):
        return [body for command, body in self.commands if command in wanted]

    def texts(self, *wanted):
        """The texts of commands that hold one, at the offset their third word gives."""
        return [text_at(body + b"\0", struct.unpack_from("<I", body, 8)[0])
                for body in self.bodies(*wanted)]

    def run_paths(self):
        return self.texts(LC_RPATH)

    def libraries(self):
        """In the order of their ordinals, from 1 on."""
        return self.texts(*LC_LIBRARIES)

    def minimum_systems(self):
        """(platform, version) of each command that states one; platform 1 is macOS."""
        stated = [struct.unpack_from("<II", body, 8) for body in self.bodies(LC_BUILD_VERSION)]
        stated += [(1, struct.unpack_from("<I", body, 8)[0])
                   for body in self.bodies(LC_VERSION_MIN_MACOSX)]
        return [(platform, f"{version >> 16}.{version >> 8 & 255}") for platform, version in stated]

    def imports(self):
        """{library: its symbols that this executable asks for}"""
        (body,) = self.bodies(LC_SYMTAB)
        symbols, count, strings, _ = struct.unpack_from("<4I", body, 8)
        libraries = self.libraries()
        found = {library: set() for library in libraries}
        for index in range(count):
            name, kind, _, description, _ = struct.unpack_from("<IBBHQ", self.data,
                                                               symbols + 16 * index)
            if kind & 0xEE == 0 and kind & 1:  # undefined, external, no debugging entry
                found[libraries[(description >> 8) - 1]].add(text_at(self.data, strings + name))
        return found

    def signature(self):
        """(where it begins, {slot: blob})"""
        (body,) = self.bodies(LC_CODE_SIGNATURE)
        start, size = struct.unpack_from("<II", body, 8)
        whole = self.data[start:start + size]
        magic, _, count = struct.unpack_from(">3I", whole)
        assert magic == 0xFADE0CC0, hex(magic)
        blobs = {}
        for index in range(count):
            slot, offset = struct.unpack_from(">II", whole, 12 + 8 * index)
            length = struct.unpack_from(">I", whole, offset + 4)[0]
            blobs[slot] = whole[offset:offset + length]
        return start, blobs

    def entitlements(self):
        """The property list that was signed, as bytes."""
        blob = self.signature()[1][ENTITLEMENTS]
        assert blob[:4] == bytes.fromhex("fade7171")
        return blob[8:]

    def wrong_hashes(self):
        """What the code directory's hashes do not fit: page numbers from 0 on, and the
        negative numbers of special slots; and "end" if they leave out some of the file."""
        start, blobs = self.signature()
        directory = blobs[CODE_DIRECTORY]
        (magic, _, _, _, hashes, _, special, pages, limit, hash_size, hash_type, _,
         page_bits) = struct.unpack_from(">9I4B", directory)
        assert (magic, hash_size, hash_type) == (0xFADE0C02, 32, 2), "not SHA-256"
        page_size = 1 << page_bits

        def fits(slot, content):
            at = hashes + 32 * slot
            return directory[at:at + 32] == hashlib.sha256(content).digest()

        wrong = [page for page in range(pages)
                 if not fits(page, self.data[page * page_size:min((page + 1) * page_size, limit)])]
        for slot in range(1, special + 1):
            empty = directory[hashes - 32 * slot:][:32] == bytes(32)
            if slot in blobs and not fits(-slot, blobs[slot]) or slot not in blobs and not empty:
                wrong.append(-slot)
        wrong += [-slot for slot in blobs if special < slot < 0x1000]
        if limit != start or pages != -(-limit // page_size):
            wrong.append("end")
        return wrong
