"""Reads what no LLVM tool reads of a macOS executable: its signature. Raises struct.error,
AssertionError or KeyError for a file that is none."""
import hashlib
import struct

ARCHITECTURES = {0x01000007: "x86_64", 0x0100000C: "arm64"}
LC_CODE_SIGNATURE = 0x1D
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


def commands(data, wanted):
    """Those load commands of a slice, in order."""
    offset = 32
    for _ in range(struct.unpack_from("<I", data, 16)[0]):
        command, length = struct.unpack_from("<II", data, offset)
        if command == wanted:
            yield data[offset:offset + length]
        offset += length


def signature(data):
    """(where it begins, {slot: blob})"""
    (body,) = commands(data, LC_CODE_SIGNATURE)
    start, size = struct.unpack_from("<II", body, 8)
    whole = data[start:start + size]
    magic, _, count = struct.unpack_from(">3I", whole)
    assert magic == 0xFADE0CC0, hex(magic)
    blobs = {}
    for index in range(count):
        slot, offset = struct.unpack_from(">II", whole, 12 + 8 * index)
        blobs[slot] = whole[offset:offset + struct.unpack_from(">I", whole, offset + 4)[0]]
    return start, blobs


def entitlements(data):
    """The property list that was signed, as bytes."""
    blob = signature(data)[1][ENTITLEMENTS]
    assert blob[:4] == bytes.fromhex("fade7171")
    return blob[8:]


def page_size(data):
    return 1 << signature(data)[1][CODE_DIRECTORY][39]


def wrong_hashes(data):
    """What the code directory's hashes do not fit: page numbers from 0 on, and the negative
    numbers of special slots; and "end" if they leave out some of the file."""
    start, blobs = signature(data)
    directory = blobs[CODE_DIRECTORY]
    (magic, _, _, _, hashes, _, special, pages, limit, hash_size,
     hash_type) = struct.unpack_from(">9I2B", directory)
    assert (magic, hash_size, hash_type) == (0xFADE0C02, 32, 2), "not SHA-256"
    size = page_size(data)

    def fits(slot, content):
        at = hashes + 32 * slot
        return directory[at:at + 32] == hashlib.sha256(content).digest()

    wrong = [page for page in range(pages)
             if not fits(page, data[page * size:min((page + 1) * size, limit)])]
    for slot in range(1, special + 1):
        empty = directory[hashes - 32 * slot:][:32] == bytes(32)
        if slot in blobs and not fits(-slot, blobs[slot]) or slot not in blobs and not empty:
            wrong.append(-slot)
    wrong += [-slot for slot in blobs if special < slot < 0x1000]
    if limit != start or pages != -(-limit // size):
        wrong.append("end")
    return wrong
