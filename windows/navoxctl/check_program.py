#!/usr/bin/env python3
"""Checks that navoxctl.exe is a console program that needs nothing but what Windows has.

Exit status: 0 when it is, 1 when it is not, 77 when there is no program. With --can-fail, copies of the program are
broken one by one, and each must be found out.
"""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import pe_image as pe

SUBSYSTEM_CONSOLE = 3
SUBSYSTEM_OFFSET = 68  # in the optional header
FLAGS_OFFSET = 70
LIBRARIES = {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "setupapi.dll"}


def problems(image):
    if image.machine != pe.MACHINE_AMD64:
        yield f"machine 0x{image.machine:x} is not x86-64"
    if image.subsystem != SUBSYSTEM_CONSOLE:
        yield f"subsystem {image.subsystem} is not the console's"
    for flag, name in ((pe.DLL_DYNAMIC_BASE, "address randomisation"), (pe.DLL_NX_COMPAT, "data execution prevention")):
        if not image.dll_characteristics & flag:
            yield f"no {name}"
    for library in image.imports():
        if library.lower() not in LIBRARIES:
            yield f"{library} is not on every machine"


def broken_copies(data):
    """The image, with one thing wrong at a time."""
    image = pe.Image(data)
    image.put("<H", image.optional + SUBSYSTEM_OFFSET, pe.SUBSYSTEM_NATIVE)
    yield "subsystem", image
    image = pe.Image(data)
    image.put("<H", image.optional + FLAGS_OFFSET, 0)
    yield "flags", image
    name = b"msvcrt.dll\0"
    yield "import", pe.Image(bytes(data).replace(name, b"gccdll.dll\0"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--can-fail", action="store_true")
    arguments = parser.parse_args()
    if not arguments.program.exists():
        print(f"{arguments.program}: not built (cmake --preset windows && cmake --build --preset windows)")
        return 77
    data = arguments.program.read_bytes()
    if arguments.can_fail:
        missed = [what for what, image in broken_copies(data) if not list(problems(pe.Image(image.data)))]
        print("\n".join(f"not found out: {what}" for what in missed))
        return 1 if missed else 0
    found = list(problems(pe.Image(data)))
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
