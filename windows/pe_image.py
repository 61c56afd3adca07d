"""A Windows x64 image as bytes: the headers, sections, imports and resources that the driver's checks need."""

import hashlib
import struct
from dataclasses import dataclass

MACHINE_AMD64 = 0x8664
MAGIC_PE32_PLUS = 0x20B
SUBSYSTEM_NATIVE = 1

FILE_RELOCS_STRIPPED = 0x0001
FILE_EXECUTABLE_IMAGE = 0x0002
FILE_DLL = 0x2000

DLL_HIGH_ENTROPY_VA = 0x0020
DLL_DYNAMIC_BASE = 0x0040
DLL_NX_COMPAT = 0x0100

SECTION_CODE = 0x00000020
SECTION_DISCARDABLE = 0x02000000
SECTION_NOT_PAGED = 0x08000000
SECTION_EXECUTE = 0x20000000
SECTION_READ = 0x40000000
SECTION_WRITE = 0x80000000

DIRECTORY_EXPORT, DIRECTORY_IMPORT, DIRECTORY_RESOURCE, DIRECTORY_SECURITY, DIRECTORY_RELOC = 0, 1, 2, 4, 5
DIRECTORY_TLS = 9
RESOURCE_VERSION = 16
FIXED_FILE_INFO_SIGNATURE = 0xFEEF04BD

CHECKSUM_OFFSET = 64  # in the optional header


class ImageError(Exception):
    """The bytes are not an image at all, or one of its tables points outside it."""


@dataclass
class Section:
    """One row of the section table; `header` is the row's offset in the file, sizes are in bytes."""

    name: str
    virtual_size: int
    address: int
    raw_size: int
    raw_offset: int
    flags: int
    header: int

    def holds(self, address):
        return self.address <= address < self.address + max(self.virtual_size, self.raw_size)


class Image:
    """Parsed view of `data`, a bytearray that callers may change through `put`."""

    def __init__(self, data):
        self.data = bytearray(data)
        if self.data[:2] != b"MZ":
            raise ImageError("no MZ header")
        self.pe = self.get("<I", 0x3C)
        if self.data[self.pe : self.pe + 4] != b"PE\0\0":
            raise ImageError("no PE signature")
        self.machine, section_count, _, _, _, optional_size, self.characteristics = self.unpack(
            "<HHIIIHH", self.pe + 4
        )
        self.optional = self.pe + 24
        self.magic = self.get("<H", self.optional)
        if self.magic != MAGIC_PE32_PLUS:
            raise ImageError(f"optional header magic is 0x{self.magic:x}, not PE32+")
        self.entry = self.get("<I", self.optional + 16)
        self.section_alignment, self.file_alignment = self.unpack("<II", self.optional + 32)
        self.size_of_image, self.size_of_headers = self.unpack("<II", self.optional + 56)
        self.subsystem, self.dll_characteristics = self.unpack("<HH", self.optional + 68)
        self.sections = self._sections(self.optional + optional_size, section_count)

    def unpack(self, layout, offset):
        try:
            return struct.unpack_from(layout, self.data, offset)
        except struct.error as error:
            raise ImageError(f"truncated at 0x{offset:x}") from error

    def get(self, layout, offset):
        return self.unpack(layout, offset)[0]

    def put(self, layout, offset, value):
        struct.pack_into(layout, self.data, offset, value)

    def _sections(self, table, count):
        rows = []
        for i in range(count):
            header = table + 40 * i
            name = bytes(self.data[header : header + 8]).rstrip(b"\0").decode("latin-1")
            virtual_size, address, raw_size, raw_offset = self.unpack("<IIII", header + 8)
            flags = self.get("<I", header + 36)
            if raw_offset + raw_size > len(self.data):
                raise ImageError(f"section {name} ends behind the file")
            rows.append(Section(name, virtual_size, address, raw_size, raw_offset, flags, header))
        return rows

    def section(self, name):
        return next((s for s in self.sections if s.name == name), None)

    def section_at(self, address):
        return next((s for s in self.sections if s.holds(address)), None)

    def set_flags(self, section, flags):
        section.flags = flags
        self.put("<I", section.header + 36, flags)

    def directory(self, index):
        """(address, size) of a data directory; both zero when the image has none."""
        if index >= self.get("<I", self.optional + 108):
            return 0, 0
        return self.unpack("<II", self.optional + 112 + 8 * index)

    def offset(self, address):
        section = self.section_at(address)
        if section is None or address - section.address >= section.raw_size:
            raise ImageError(f"address 0x{address:x} is in no section of the file")
        return section.raw_offset + address - section.address

    def text(self, address):
        start = self.offset(address)
        end = self.data.find(b"\0", start)
        if end < 0:
            raise ImageError(f"unterminated name at 0x{address:x}")
        return self.data[start:end].decode("latin-1")

    def imports(self):
        """Imported names by library, both as written in the image."""
        table = {}
        address, _ = self.directory(DIRECTORY_IMPORT)
        while address:
            names, _, _, library, thunks = self.unpack("<IIIII", self.offset(address))
            if not library:
                break
            entry, routines = names or thunks, table.setdefault(self.text(library), [])
            while value := self.get("<Q", self.offset(entry)):
                routines.append(f"#{value & 0xFFFF}" if value >> 63 else self.text(value + 2))
                entry += 8
            address += 20
        return table

    def file_version(self):
        """The four numbers of the version resource, or None."""
        root, _ = self.directory(DIRECTORY_RESOURCE)
        if not root:
            return None
        base, node = self.offset(root), 0
        wanted = RESOURCE_VERSION
        while True:
            named, numbered = self.unpack("<HH", base + node + 12)
            rows = [self.unpack("<II", base + node + 16 + 8 * i) for i in range(named + numbered)]
            below = next((child for key, child in rows if wanted in (key, None)), None)
            if below is None:
                return None
            if not below >> 31:
                break
            node, wanted = below & 0x7FFFFFFF, None
        address, size = self.unpack("<II", base + below)
        start = self.offset(address)
        fixed = self.data.find(struct.pack("<I", FIXED_FILE_INFO_SIGNATURE), start, start + size)
        if fixed < 0:
            return None
        high, low = self.unpack("<II", fixed + 8)
        return high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF

    def symbols(self):
        """Names in the symbol table: those of the linker's own table, none in a stripped image."""
        table, count = self.unpack("<II", self.pe + 12)
        strings, names, i = table + 18 * count, [], 0
        while i < count:
            row = table + 18 * i
            raw = bytes(self.data[row : row + 8])
            if raw[:4] == b"\0\0\0\0":
                start = strings + self.get("<I", row + 4)
                raw = bytes(self.data[start : self.data.find(b"\0", start)])
            names.append(raw.rstrip(b"\0").decode("latin-1"))
            i += 1 + self.get("<B", row + 17)
        return names

    def stored_checksum(self):
        return self.get("<I", self.optional + CHECKSUM_OFFSET)

    def checksum(self):
        """The checksum the loader computes: a 16-bit ones' complement sum without the field itself, plus the size."""
        data = bytearray(self.data)
        struct.pack_into("<I", data, self.optional + CHECKSUM_OFFSET, 0)
        if len(data) % 2:
            data.append(0)
        total = sum(struct.unpack(f"<{len(data) // 2}H", data))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)

    def signed_digest(self, algorithm):
        """What a signature of the image signs: all of it but the checksum and the signature itself, which is last."""
        checksum, entry = self.optional + CHECKSUM_OFFSET, self.optional + 112 + 8 * DIRECTORY_SECURITY
        start, _ = self.directory(DIRECTORY_SECURITY)  # an offset in the file
        data = bytes(self.data[: start or len(self.data)])
        data += bytes(-len(data) % 8)
        kept = data[:checksum] + data[checksum + 4 : entry] + data[entry + 8 :]
        return hashlib.new(algorithm, kept).digest()

    def update_checksum(self):
        self.put("<I", self.optional + CHECKSUM_OFFSET, self.checksum())
