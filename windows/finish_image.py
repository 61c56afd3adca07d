#!/usr/bin/env python3
"""Gives a linked driver image the section flags that the cross-linker has no option for, and a fresh checksum.

INIT is discarded after DriverEntry, and nobody needs the link to the symbols in memory. Everything but these, the
relocations and the PAGE sections stays resident.
"""

import argparse
import pathlib

import pe_image


def finish(image):
    for section in image.sections:
        flags = section.flags
        is_debug_link = section.name.startswith("/")  # a long name, which is in the string table
        if section.name in ("INIT", ".reloc") or is_debug_link:
            flags |= pe_image.SECTION_DISCARDABLE
        elif not section.name.startswith(("PAGE", ".rsrc")):
            flags |= pe_image.SECTION_NOT_PAGED
        image.set_flags(section, flags)
    image.update_checksum()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("image", type=pathlib.Path)
    path = parser.parse_args().image
    image = pe_image.Image(path.read_bytes())
    finish(image)
    path.write_bytes(image.data)


if __name__ == "__main__":
    main()
