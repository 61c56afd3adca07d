#!/usr/bin/env python3
"""Runs clang-tidy over the sources of src/, host/, module/ and apps/, as many at a time as there are processors.

The static analyser takes more time than all other checks: it goes over the driver, and over the rest with --deep.

A file that was clean is not looked at again until it, a header it includes, its compile command, .clang-tidy or
the tool changes: the build's dependency log says what it includes, and <build>/tidy/ remembers.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import pathlib
import subprocess
import sys

ROOMS = ("src", "host", "module", "apps")


def dependencies(build):
    """Files that each object was compiled from, by object path relative to `build`."""
    log = subprocess.run(["ninja", "-C", build, "-t", "deps"], capture_output=True, text=True, check=True).stdout
    table, current = {}, None
    for line in log.splitlines():
        if line.startswith("    "):
            current.append(build / line.strip())
        elif ": #deps" in line:
            current = table.setdefault(line.split(": #deps")[0], [])
    return table


class Fingerprints:
    """Hashes of all that a verdict depends on; each file is read once."""

    def __init__(self, root):
        version = subprocess.run(["clang-tidy", "--version"], capture_output=True, text=True, check=True).stdout
        self.common = version.encode() + (root / ".clang-tidy").read_bytes()
        self.contents = {}

    def content(self, path):
        if path not in self.contents:
            self.contents[path] = hashlib.sha256(path.read_bytes()).digest()
        return self.contents[path]

    def of(self, command, files):
        state = hashlib.sha256(self.common + command.encode())
        for path in files:
            state.update(str(path).encode() + self.content(path))
        return state.hexdigest()


def options_for(source, root, deep):
    return [] if deep or source.relative_to(root).parts[0] == "src" else ["--checks=-clang-analyzer-*"]


def tidy(build, source, options):
    command = ["clang-tidy", "-p", build, "--quiet", *options, source]
    run = subprocess.run(command, capture_output=True, text=True, check=False)
    return run.returncode, run.stdout


def work_list(root, build, deep):
    """(source, path of the mark that it was clean) of the files that have to be looked at."""
    objects = dependencies(build)
    fingerprints = Fingerprints(root)
    marks = build / "tidy"
    marks.mkdir(exist_ok=True)
    work = []
    for entry in json.loads((build / "compile_commands.json").read_text()):
        source = pathlib.Path(entry["file"])
        if source.suffix != ".cpp" or source.is_relative_to(build):
            continue
        if source.relative_to(root).parts[0] not in ROOMS or any(source == other for other, _ in work):
            continue
        files = objects.get(entry["output"] if "output" in entry else entry["command"].split(" -o ")[1].split()[0])
        if files is None:
            sys.exit(f"{source.relative_to(root)}: not built in {build}: build first")
        mark = marks / fingerprints.of(f"{options_for(source, root, deep)} {entry['command']}", files)
        if not mark.exists():
            work.append((source, mark))
    return work


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=root / "build" / "dev", help="a finished build")
    parser.add_argument("--deep", action="store_true", help="the analyser goes over everything")
    parser.add_argument("--list", action="store_true", help="only name the files that would be looked at")
    arguments = parser.parse_args()
    work = work_list(root, arguments.build.resolve(), arguments.deep)
    if arguments.list:
        print("\n".join(str(source.relative_to(root)) for source, _ in work))
        return 0

    dirty = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = {pool.submit(tidy, arguments.build, source, options_for(source, root, arguments.deep)): (source, mark)
                for source, mark in work}
        for run in concurrent.futures.as_completed(runs):
            source, mark = runs[run]
            status, text = run.result()
            if status == 0:
                mark.touch()
            else:
                dirty += 1
                print(f"{source.relative_to(root)}:\n{text}", flush=True)
    print(f"clang-tidy: {len(work)} files looked at, {dirty} not clean")
    return 1 if dirty else 0


if __name__ == "__main__":
    sys.exit(main())
