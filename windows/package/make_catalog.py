#!/usr/bin/env python3
"""Writes the unsigned catalog of a folder with a setup information file and the files that it installs."""

import argparse
import pathlib

import catalog
from inf_file import Inf

SYSTEM = "2:10.0"  # second platform: NT, at least 10.0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("inf", type=pathlib.Path)
    parser.add_argument("output", type=pathlib.Path)
    arguments = parser.parse_args()
    inf = Inf(arguments.inf.read_text(encoding="utf-8"))
    names = [arguments.inf.name, *(line.key for line in inf.section("SourceDisksFiles"))]
    files = {name: (arguments.inf.parent / name).read_bytes() for name in names}
    ids = [name.lower() for _, device_ids in inf.devices() for name in device_ids]
    attributes = {f"HWID{number}": name for number, name in enumerate(ids, 1)}
    arguments.output.write_bytes(catalog.make(files, {**attributes, "OS": "_v100_X64"}, SYSTEM))


if __name__ == "__main__":
    main()
