#!/usr/bin/env python3
"""Checks which room of the source tree may know which.

  src/      the driver: platform headers, itself, the public header, C++ headers that need no runtime library;
            nothing that asks which platform it is compiled for
  include/  the public header: nothing of ours
  host/     the user-mode kernel: never the driver, not even its name
  module/   the simulated module: C++ headers and itself

Prints "file:line: what is wrong"; exit status 1 when there is anything.
"""

import argparse
import pathlib
import re
import sys

FREESTANDING = set(
    "array atomic bit cfloat climits compare concepts cstdarg cstddef cstdint initializer_list limits new "
    "source_location span type_traits utility version stdarg.h stddef.h stdint.h".split()
)
INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')
CONDITION = re.compile(r"\s*#\s*(?:el)?if")
PLATFORM_MACRO = re.compile(
    r"\b(_WIN32|_WIN64|WIN32|__linux__|__linux|__unix__|__MINGW32__|__MINGW64__|_MSC_VER|__clang__|__GNUC__|__ELF__)\b"
)


class Rooms:
    """The source tree at `root`, and what has been found wrong in it."""

    def __init__(self, root):
        self.root = root
        self.found = []
        platform = root / "host" / "include"
        self.platform_headers = {str(path.relative_to(platform)) for path in platform.rglob("*.h")}

    def report(self, path, number, text):
        self.found.append(f"{path.relative_to(self.root)}:{number}: {text}")

    def lines(self, room):
        for path in sorted((self.root / room).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
                    yield path, number, line

    def includes(self, room):
        for path, number, line in self.lines(room):
            if match := INCLUDE.match(line):
                yield path, number, match[1], match[2]

    def lies_in(self, path, name, *rooms):
        """Whether `name`, quoted in the file `path`, is a file of one of the rooms."""
        candidates = [path.parent / name, *(self.root / room / name for room in (*rooms, "."))]
        target = next((c.resolve() for c in candidates if c.exists()), None)
        return target is not None and any(target.is_relative_to((self.root / room).resolve()) for room in rooms)

    def check_driver(self):
        for path, number, kind, name in self.includes("src"):
            if kind == "<":
                if name not in self.platform_headers and name not in FREESTANDING:
                    self.report(path, number, f"<{name}> is neither a platform header nor freestanding")
            elif not self.lies_in(path, name, "src", "include"):
                self.report(path, number, f'"{name}" is outside the driver')
        for path, number, line in self.lines("src"):
            if CONDITION.match(line) and (match := PLATFORM_MACRO.search(line)):
                self.report(path, number, f"depends on the platform ({match[1]})")

    def check_public_header(self):
        for path, number, kind, name in self.includes("include"):
            if kind == '"' and not self.lies_in(path, name, "include"):
                self.report(path, number, f'"{name}" is not public')

    def check_kernel(self):
        for path, number, kind, name in self.includes("host"):
            if (path.parent / name).resolve().is_relative_to((self.root / "src").resolve()) or name.startswith("src/"):
                self.report(path, number, f"{name} is the driver's")
        for path, number, line in self.lines("host"):
            if re.search("navox", line, re.IGNORECASE):
                self.report(path, number, "names the driver")

    def check_module(self):
        for path, number, kind, name in self.includes("module"):
            if kind == "<":
                if "/" in name or "." in name or name in self.platform_headers:
                    self.report(path, number, f"<{name}> is not a C++ header")
            elif not self.lies_in(path, name, "module"):
                self.report(path, number, f'"{name}" is outside the module')

    def check(self):
        self.check_driver()
        self.check_public_header()
        self.check_kernel()
        self.check_module()
        return self.found


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("root", type=pathlib.Path, nargs="?", default=pathlib.Path(__file__).resolve().parent.parent)
    found = Rooms(parser.parse_args().root.resolve()).check()
    print("\n".join(found) if found else "The rooms keep to themselves.")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
