#!/usr/bin/env python3
"""Checks that a driver image is one that Windows loads, and loads safely.

Each rule has a name; a violation prints as "<rule>: <what is wrong>". Exit status: 0 when the image keeps all
rules, 1 when it breaks one, 77 when there is no image.
"""

import argparse
import pathlib
import sys

import pe_image as pe

LIBRARIES = {"ntoskrnl.exe", "hal.dll", "usbd.sys", "wmilib.sys"}
PAGE_SIZE = 0x1000
CODE_SECTIONS = {".text", "INIT", "PAGE"}
# What the compiler calls the code that sets up globals, and that nobody calls in a driver.
CONSTRUCTOR_PREFIXES = ("_GLOBAL__sub_I", "_GLOBAL__I")


def header_rules(image):
    if image.machine != pe.MACHINE_AMD64:
        yield "machine", f"0x{image.machine:x} is not x86-64"
    if image.subsystem != pe.SUBSYSTEM_NATIVE:
        yield "subsystem", f"{image.subsystem} is not native: imports stay unbound"
    if not image.characteristics & pe.FILE_EXECUTABLE_IMAGE or image.characteristics & pe.FILE_DLL:
        yield "kind", f"characteristics 0x{image.characteristics:x} are not an executable's"
    for flag, name in ((pe.DLL_DYNAMIC_BASE, "dynamic-base"), (pe.DLL_NX_COMPAT, "nx-compat")):
        if not image.dll_characteristics & flag:
            yield name, "flag missing"
    if image.section_alignment < PAGE_SIZE or image.section_alignment % PAGE_SIZE:
        yield "section-alignment", f"0x{image.section_alignment:x} is below a page"
    if image.stored_checksum() != image.checksum():
        yield "checksum", f"0x{image.stored_checksum():x} stored, 0x{image.checksum():x} computed"


def section_rules(image):
    entry = image.section_at(image.entry)
    if not image.entry or entry is None or not entry.flags & pe.SECTION_EXECUTE:
        yield "entry", f"0x{image.entry:x} is not in code"
    end = 0
    for section in image.sections:
        if section.flags & pe.SECTION_WRITE and section.flags & pe.SECTION_EXECUTE:
            yield "write-xor-execute", f"{section.name} is both writable and executable"
        if section.flags & pe.SECTION_EXECUTE and section.name not in CODE_SECTIONS:
            yield "code-sections", f"{section.name} is executable"
        if section.name.startswith((".tls", ".CRT")):
            yield "no-runtime", f"{section.name} needs a runtime library that the kernel has not"
        if section.address < end or section.address % image.section_alignment:
            yield "section-order", f"{section.name} at 0x{section.address:x} overlaps or is unaligned"
        end = section.address + section.virtual_size
    if end > image.size_of_image:
        yield "section-order", f"sections end at 0x{end:x}, the image at 0x{image.size_of_image:x}"
    for name in ("INIT", ".reloc"):
        section = image.section(name)
        if section is None:
            yield "discardable", f"no {name} section"
        elif not section.flags & pe.SECTION_DISCARDABLE:
            yield "discardable", f"{name} stays in memory"
    for name in (".text", ".data"):
        section = image.section(name)
        if section is not None and section.flags & pe.SECTION_DISCARDABLE:
            yield "discardable", f"{name} would be thrown away"


def directory_rules(image):
    address, size = image.directory(pe.DIRECTORY_RELOC)
    if image.characteristics & pe.FILE_RELOCS_STRIPPED or not address or size < 8:
        yield "relocations", "none: the image is never loaded at its preferred base"
    if image.directory(pe.DIRECTORY_TLS) != (0, 0):
        yield "no-runtime", "thread-local storage directory"
    if image.directory(pe.DIRECTORY_EXPORT) != (0, 0):
        yield "no-exports", "a function driver exports nothing"


def import_rules(image):
    imports = {library.lower(): routines for library, routines in image.imports().items()}
    if not imports.get("ntoskrnl.exe"):
        yield "imports", "nothing from ntoskrnl.exe"
    for library, routines in imports.items():
        if library not in LIBRARIES:
            yield "imports", f"{library} ({', '.join(routines[:3])}) is not for drivers"
        for routine in routines:
            if routine.startswith(("__", "_Z", "#", "Wdmlib")) or routine in ("atexit", "malloc", "free"):
                yield "imports", f"{library} has no {routine}"


def version_rules(image, version):
    found = image.file_version()
    if found != version:
        text = ".".join(map(str, found)) if found else "none"
        yield "version", f"resource says {text}, expected {'.'.join(map(str, version))}"


def symbol_problems(data):
    """Violations that only the symbols, kept apart from the image, can show."""
    names = pe.Image(data).symbols()
    if "DriverEntry" not in names:
        yield "symbols", "no DriverEntry: not the symbols of a driver"
    for name in names:
        if name.startswith(CONSTRUCTOR_PREFIXES):
            yield "constructors", f"{name} would never run"


def problems(data, version):
    """All violations of the image as (rule, text)."""
    try:
        image = pe.Image(data)
        found = [*header_rules(image), *section_rules(image), *directory_rules(image), *import_rules(image)]
        return found + list(version_rules(image, version))
    except pe.ImageError as error:
        return [("format", str(error))]


def parse_version(text):
    return tuple(int(part) for part in text.split("."))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("image", type=pathlib.Path)
    parser.add_argument("--version", type=parse_version, required=True, metavar="A.B.C.D")
    parser.add_argument("--symbols", type=pathlib.Path, help="the symbols that were set apart from the image")
    arguments = parser.parse_args()
    if not arguments.image.exists():
        print(f"{arguments.image}: not built (cmake --preset windows && cmake --build --preset windows)")
        return 77
    data = arguments.image.read_bytes()
    found = problems(data, arguments.version)
    if arguments.symbols:
        found += symbol_problems(arguments.symbols.read_bytes())
    for rule, text in found:
        print(f"{rule}: {text}")
    if found:
        return 1
    image = pe.Image(data)
    print(f"{arguments.image.name}: {len(data)} bytes, sections {' '.join(s.name for s in image.sections)}")
    for library, routines in sorted(image.imports().items()):
        print(f"  {library}: {len(routines)} routines")
    return 0


if __name__ == "__main__":
    sys.exit(main())
