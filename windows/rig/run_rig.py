#!/usr/bin/env python3
"""Runs rig_test.exe with the driver of an installation package in Wine, without a display.

Makes a Wine prefix of its own in the work folder, installs there, and runs every scenario (or those that are named).
After that each broken driver of the cross build has its turn: the rig must find what is wrong with it. Ends all that it
started, also when a signal ends it. Exit status 0 when all is as it should be, 77 when there is no Wine, no package or
no cross build; with NAVOX_RIG_REQUIRED set, that is a failure.
"""

import argparse
import fcntl
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

WINE = pathlib.Path("/usr/lib/wine/wine64")  # the `wine` in the path only adds advice about 32 bits
SERVER = pathlib.Path("/usr/lib/wine/wineserver64")
SKIPPED = 77
LIMIT = 200  # s, for all that is run; what is still running then is ended
BUS_INF = pathlib.Path(__file__).resolve().with_name("navox_bus.inf")
# Wine's setup knows neither versions of the system in section names nor the driver store.
FOR_WINE = ((rb"NTamd64\.10\.0\.\.\.16299", b"NTamd64"), (rb"(DefaultDestDir\s*=\s*)13", rb"\g<1>12"), (rb"%13%", b"%12%"))

# Broken drivers: file name, the scenario that shows it, and what the rig must say.
BROKEN = (
    ("navox_waits_in_dpc.sys", "ReadsWhatIsSent", (r"KeWaitForSingleObject at IRQL 2", r"ExAllocatePoolWithTag at IRQL 2")),
    ("navox_wrong_information.sys", "ReadsWhatIsSent", (r"port\.ReadAll\(.*\) is ",)),
    ("navox_leaks_name.sys", "TheRegistryNamesThePortWhileItIsThere", (r"QueryDosDeviceA\(.*\) is \d+, not 0",)),
)


class Prefix:
    """A Wine prefix in a folder, with one session at a time."""

    def __init__(self, folder):
        self.folder = folder
        self.windows = folder / "drive_c" / "windows"
        self.rig = folder / "drive_c" / "rig"
        self.deadline = time.monotonic() + LIMIT
        self.environment = {key: value for key, value in os.environ.items() if key not in ("DISPLAY", "WAYLAND_DISPLAY")}
        self.environment.update(
            WINEPREFIX=str(folder),
            WINEDEBUG=os.environ.get("WINEDEBUG", "-all"),
            WINEDLLOVERRIDES="mscoree=;mshtml=;winemenubuilder.exe=",
        )

    def wine(self, *arguments, limit):
        """Runs a program and returns its exit status and output. Ends the session."""
        with subprocess.Popen(
            [WINE, *arguments], env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, errors="replace", cwd=self.folder,
        ) as process:
            try:
                # Services keep the pipe open: what counts is the program's end.
                limit = max(1, min(limit, self.deadline - time.monotonic()))
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = f"still running after {limit:.0f} s"
                process.kill()
            except BaseException:
                process.kill()
                raise
            self.end()
            return status, process.stdout.read()

    def end(self):
        for option in ("-k", "-w"):
            subprocess.run([SERVER, option], env=self.environment, timeout=20, check=False)

    def make(self):
        if self.folder.exists():
            self.end()  # what a run that was killed has left
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        status, output = self.wine("wineboot", "-i", limit=120)
        if status != 0:
            raise RuntimeError(f"wineboot: {status}\n{output}")

    def fill(self, built, package):
        """Puts the rig where it runs, and the package where it is installed from."""
        shutil.copytree(package, self.rig / "package")
        for file in (BUS_INF, built / "navox_bus.sys", built / "rig_test.exe"):
            shutil.copy(file, self.rig)
        shutil.copy(built / "navox_rig.dll", self.windows / "system32")
        shutil.copy(built / "wmilib.sys", self.windows / "system32" / "drivers")
        inf = self.rig / "package" / "navox.inf"
        text = inf.read_bytes()
        for pattern, replacement in FOR_WINE:
            text, count = re.subn(pattern, replacement, text)
            if count == 0:
                raise RuntimeError(f"navox.inf has no {pattern.decode()}")
        inf.write_bytes(text)
        # For the second device, setup looks beside the INF that it has put away.
        shutil.copy(package / "navox.sys", self.windows / "inf")

    def run_tests(self, *scenarios):
        return self.wine(r"C:\rig\rig_test.exe", "all", r"C:\rig\package", *scenarios, limit=120)


def check_broken(prefix, built):
    """In the same prefix, with another driver in the place of the one that is installed. True when all is found."""
    good = True
    for name, scenario, findings in BROKEN:
        shutil.copy(built / name, prefix.windows / "system32" / "drivers" / "navox.sys")
        status, output = prefix.run_tests(scenario)
        found = status == 1 and all(re.search(finding, output) for finding in findings)
        print(f"{'ok    ' if found else 'FAILED'} {name} is found out")
        if not found:
            print(f"exit status {status}\n{output}")
        good = good and found
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--built", type=pathlib.Path, required=True, help="folder with what the cross build made of the rig")
    parser.add_argument("--package", type=pathlib.Path, required=True, help="folder with the installation package")
    parser.add_argument("--work", type=pathlib.Path, required=True, help="folder for the prefix; emptied before and after")
    parser.add_argument("--keep", action="store_true", help="leave the prefix for a look")
    parser.add_argument("scenarios", nargs="*", help="instead of all; no broken drivers then")
    options = parser.parse_args()
    for needed in (WINE, SERVER, options.package / "navox.sys", options.built / "navox_bus.sys", options.built / "rig_test.exe"):
        if not needed.exists():
            print(f"{needed} is not there")
            return 1 if os.environ.get("NAVOX_RIG_REQUIRED") else SKIPPED
    options.work.mkdir(parents=True, exist_ok=True)
    lock = os.open(options.work, os.O_RDONLY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        print(f"another run uses {options.work}")
        return 1
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    start = time.monotonic()
    prefix = Prefix(options.work.resolve() / "prefix")
    try:
        prefix.make()
        prefix.fill(options.built, options.package)
        status, output = prefix.run_tests(*options.scenarios)
        print(output, end="")
        good = status == 0
        if not good:
            print(f"rig_test.exe: {status}")
        if not options.scenarios:
            good = check_broken(prefix, options.built) and good
    except RuntimeError as error:
        print(error)
        good = False
    finally:
        prefix.end()
        if not options.keep:
            shutil.rmtree(prefix.folder, ignore_errors=True)
    print(f"{time.monotonic() - start:.0f} s")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
