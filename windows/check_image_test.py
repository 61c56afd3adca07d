#!/usr/bin/env python3
"""Breaks copies of a sound driver image, one rule at a time, and expects the check to name that rule."""

import pathlib
import struct
import sys
import unittest

import check_image
import pe_image as pe

IMAGE = b""
SYMBOLS = b""
VERSION = (7, 2, 1, 1)


def patch(layout, offset, value):
    """A change at an offset of the optional header."""
    return lambda image: image.put(layout, image.optional + offset, value)


def flags(name, add=0, remove=0):
    def change(image):
        section = image.section(name)
        image.set_flags(section, (section.flags | add) & ~remove)

    return change


def rename(old, new):
    def change(image):
        header = image.section(old).header
        image.data[header : header + 8] = new.encode().ljust(8, b"\0")

    return change


def directory(index, address, size):
    return patch("<Q", 112 + 8 * index, address | size << 32)


def import_of(library, replacement):
    """Overwrites the name of an imported library, or of its first routine when `replacement` starts with _."""

    def change(image):
        address, _ = image.directory(pe.DIRECTORY_IMPORT)
        while True:
            names, _, _, name, _ = image.unpack("<IIIII", image.offset(address))
            if image.text(name).lower() == library:
                break
            address += 20
        if replacement.startswith("_"):
            name = image.get("<Q", image.offset(names)) + 2
        start = image.offset(name)
        image.data[start : start + len(replacement) + 1] = replacement.encode() + b"\0"

    return change


def version_resource(image):
    start = image.data.find(struct.pack("<I", pe.FIXED_FILE_INFO_SIGNATURE))
    image.put("<I", start + 8, 0x00070003)


def swap_addresses(image):
    first, second = image.sections[0], image.sections[1]
    image.put("<I", first.header + 12, second.address)


# Rule that must speak, what is done to the image.
MUTATIONS = (
    ("machine", lambda image: image.put("<H", image.pe + 4, 0x14C)),
    ("kind", lambda image: image.put("<H", image.pe + 22, image.characteristics | pe.FILE_DLL)),
    ("subsystem", patch("<H", 68, 3)),
    ("dynamic-base", patch("<H", 70, pe.DLL_NX_COMPAT)),
    ("nx-compat", patch("<H", 70, pe.DLL_DYNAMIC_BASE)),
    ("section-alignment", patch("<I", 32, 0x200)),
    ("entry", patch("<I", 16, 0)),
    ("entry", lambda image: image.put("<I", image.optional + 16, image.section(".rdata").address)),
    ("write-xor-execute", flags(".text", add=pe.SECTION_WRITE)),
    ("code-sections", flags(".rdata", add=pe.SECTION_EXECUTE)),
    ("no-runtime", rename(".xdata", ".tls")),
    ("no-runtime", directory(pe.DIRECTORY_TLS, 0x1000, 40)),
    ("no-exports", directory(pe.DIRECTORY_EXPORT, 0x1000, 40)),
    ("section-order", swap_addresses),
    ("section-order", patch("<I", 56, 0x2000)),
    ("discardable", flags("INIT", remove=pe.SECTION_DISCARDABLE)),
    ("discardable", flags(".reloc", remove=pe.SECTION_DISCARDABLE)),
    ("discardable", flags(".text", add=pe.SECTION_DISCARDABLE)),
    ("discardable", rename("INIT", ".init")),
    ("relocations", directory(pe.DIRECTORY_RELOC, 0, 0)),
    ("relocations", lambda image: image.put("<H", image.pe + 22, image.characteristics | pe.FILE_RELOCS_STRIPPED)),
    ("imports", import_of("ntoskrnl.exe", "kernel32.dll")),
    ("imports", import_of("ntoskrnl.exe", "__main")),
    ("imports", directory(pe.DIRECTORY_IMPORT, 0, 0)),
    ("version", version_resource),
    ("version", directory(pe.DIRECTORY_RESOURCE, 0, 0)),
    ("format", lambda image: image.put("<I", image.pe, 0)),
    ("format", lambda image: image.put("<H", image.optional, 0x10B)),
    ("format", directory(pe.DIRECTORY_IMPORT, 0x7FFF0000, 40)),
)


class CheckImage(unittest.TestCase):
    def rules(self, data):
        return [rule for rule, _ in check_image.problems(bytes(data), VERSION)]

    def test_the_image_itself_is_sound(self):
        self.assertEqual(check_image.problems(IMAGE, VERSION), [])

    def test_each_mutation_is_named(self):
        for number, (rule, change) in enumerate(MUTATIONS):
            with self.subTest(number=number, rule=rule):
                image = pe.Image(IMAGE)
                change(image)
                image.update_checksum()
                self.assertIn(rule, self.rules(image.data))

    def test_any_changed_byte_breaks_the_checksum(self):
        for offset in (0x40, len(IMAGE) // 2, len(IMAGE) - 1):
            data = bytearray(IMAGE)
            data[offset] ^= 0x10
            self.assertIn("checksum", self.rules(data))

    def test_cut_images_are_refused(self):
        for size in (0, 2, 0x40, 0x180, len(IMAGE) // 2):
            self.assertEqual(self.rules(IMAGE[:size]), ["format"])

    def test_another_version_is_refused(self):
        rules = [rule for rule, _ in check_image.problems(IMAGE, (7, 2, 1, 2))]
        self.assertEqual(rules, ["version"])

    def test_a_constructor_shows_in_the_symbols(self):
        self.assertEqual(list(check_image.symbol_problems(SYMBOLS)), [])
        prefix = check_image.CONSTRUCTOR_PREFIXES[0]
        victim = next(name for name in pe.Image(SYMBOLS).symbols() if len(name) > len(prefix) and name != "DriverEntry")
        broken = SYMBOLS.replace(b"\0" + victim.encode() + b"\0", f"\0{prefix}{victim[len(prefix):]}\0".encode(), 1)
        self.assertEqual([rule for rule, _ in check_image.symbol_problems(broken)], ["constructors"])
        self.assertEqual([rule for rule, _ in check_image.symbol_problems(IMAGE)], ["symbols"])


if __name__ == "__main__":
    path = pathlib.Path(sys.argv.pop(1))
    if not path.exists():
        print(f"{path}: not built")
        sys.exit(77)
    IMAGE = path.read_bytes()
    SYMBOLS = path.with_name(path.name + ".debug").read_bytes()
    unittest.main(verbosity=1)
