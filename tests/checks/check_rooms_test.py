#!/usr/bin/env python3
"""Puts one stranger at a time into a small tree and expects check_rooms.py to show it the door."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import check_rooms  # noqa: E402

TREE = {
    "include/navox/codes.h": "#include <stdint.h>\n",
    "src/driver.h": '#include <ntddk.h>\n#include <wdm/ke.h>\n#include <cstdint>\n#include "../include/navox/codes.h"\n',
    "src/driver.cpp": '#include "driver.h"\n#ifndef _In_\n#endif\n',
    "host/include/ntddk.h": "#include <wdm/ke.h>\n",
    "host/include/wdm/ke.h": "#include <cstddef>\n",
    "host/ke/kernel.cpp": '#include <ntddk.h>\n#include "module/device.h"\n',
    "module/device.h": "#include <vector>\n",
    "module/device.cpp": '#include "module/device.h"\n',
}

# File, line that is added to it, what must be said about it (None: allowed).
STRANGERS = (
    ("src/driver.cpp", "#include <vector>", "neither a platform header nor freestanding"),
    ("src/driver.cpp", "#include <windows.h>", "neither a platform header nor freestanding"),
    ("src/driver.cpp", '#include "../host/ke/kernel.cpp"', "outside the driver"),
    ("src/driver.cpp", '#include "module/device.h"', "outside the driver"),
    ("src/driver.cpp", "#ifdef _WIN32", "depends on the platform"),
    ("src/driver.h", "#  elif defined(__linux__)", "depends on the platform"),
    ("src/driver.cpp", "#if !defined(__MINGW32__) // why", "depends on the platform"),
    ("src/driver.cpp", "#include <type_traits>", None),
    ("include/navox/codes.h", '#include "../../src/driver.h"', "is not public"),
    ("host/ke/kernel.cpp", '#include "../../src/driver.h"', "is the driver's"),
    ("host/ke/kernel.cpp", '#include "src/driver.h"', "is the driver's"),
    ("host/ke/kernel.cpp", "// loads Navox", "names the driver"),
    ("module/device.cpp", "#include <ntddk.h>", "is not a C++ header"),
    ("module/device.cpp", "#include <sys/time.h>", "is not a C++ header"),
    ("module/device.cpp", '#include "host/ke/kernel.cpp"', "outside the module"),
    ("module/device.cpp", "#include <chrono>", None),
)


class CheckRooms(unittest.TestCase):
    def found(self, changed=None, line=""):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder).resolve()
            for name, text in TREE.items():
                path = root / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text + line + "\n" if name == changed else text, encoding="utf-8")
            return check_rooms.Rooms(root).check()

    def test_a_tidy_tree_passes(self):
        self.assertEqual(self.found(), [])

    def test_strangers_are_named(self):
        for name, line, expected in STRANGERS:
            with self.subTest(name=name, line=line):
                found = self.found(name, line)
                if expected is None:
                    self.assertEqual(found, [])
                else:
                    self.assertEqual(len(found), 1, found)
                    number = TREE[name].count("\n") + 1
                    self.assertTrue(found[0].startswith(f"{name}:{number}: ") and expected in found[0], found)


if __name__ == "__main__":
    unittest.main()
