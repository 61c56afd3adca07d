"""What the end-to-end tests share: a running navox-host, a recording, and the programs around them.

Every wait is bounded, every child is ended by its own process id.
"""

import argparse
import atexit
import functools
import operator
import os
import pathlib
import queue
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SKIPPED = 77  # to CTest
PATIENCE = 60  # seconds, for anything that is to happen soon, on a machine that first has to read what it runs
EMPTY_FIX = b"$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n"  # what a fresh handle reads first

_arguments = argparse.Namespace(host=None)


def main():
    """Runs the calling script's tests; exit status 77 when there was nothing that could run."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--host", required=True, help="the navox-host program")
    _, rest = parser.parse_known_args(namespace=_arguments)
    program = unittest.main(argv=sys.argv[:1] + rest, verbosity=2, exit=False)
    result = program.result
    for test, reason in result.skipped:
        print(f"skipped: {test}: {reason}")
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(SKIPPED if result.testsRun == len(result.skipped) else 0)


def use_host(program):
    """For those who run no tests."""
    _arguments.host = program


@functools.cache
def journey():
    """A recording: its path, and what is replayed of it."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="navox-e2e-"))
    atexit.register(shutil.rmtree, folder)
    sentences = made_up_journey()
    (folder / "journey.log").write_bytes(b"# Made up: no receiver was there.\n" + sentences)
    return str(folder / "journey.log"), sentences


def recordings():
    """Those of real receivers: each path, and what is replayed of it."""
    paths = sorted(pathlib.Path(os.environ.get("NAVOX_NMEA_DATA") or "no-recordings").glob("*.log"))
    if not paths:
        raise unittest.SkipTest("NAVOX_NMEA_DATA names no folder of recordings")
    for path in paths:
        lines = path.read_bytes().splitlines(keepends=True)
        yield str(path), b"".join(line for line in lines if not line.startswith(b"#"))


def made_up_journey(seconds=300):
    """North along a meridian, by 0.001 minutes a second; no two bursts are alike."""
    lines = []
    for second in range(seconds):
        time = f"12{second // 60:02}{second % 60:02}.00"
        place = f"47{30 + second / 1000:08.5f},N,00930.00000,E"
        for text in (f"GPRMC,{time},A,{place},3.600,0.0,110720,,,A",
                     f"GPGGA,{time},{place},1,08,0.9,400.0,M,48.0,M,,",
                     f"GPGLL,{place},{time},A,A", f"GPVTG,0.0,T,,M,3.600,N,{second}.0,K,A",
                     f"GPGSA,A,3,01,02,03,04,05,06,07,08,,,,,1.5,0.9,{second / 10:.1f}",
                     *(f"GPGSV,4,{part},16,{second % 90:02},040,083,46,02,17,308,41,12,07,344,39,14,22,228,45"
                       for part in range(1, 5))):
            lines.append(f"${text}*{functools.reduce(operator.xor, text.encode()):02X}")
    return "\r\n".join(lines + [""]).encode()


def need_program(name):
    path = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")
    if path is None:
        raise unittest.SkipTest(f"{name} is not installed")
    return path


def run_host(*arguments, runtime=None, timeout=PATIENCE, stdin=b""):
    """Runs navox-host to its end; `stdin` is what it may read."""
    with tempfile.TemporaryDirectory(prefix="navox-e2e-") as folder:
        environment = dict(os.environ, XDG_RUNTIME_DIR=runtime or folder)
        return subprocess.run([_arguments.host, *arguments], env=environment, timeout=timeout,
                              input=stdin, capture_output=True, check=False)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what, timeout=PATIENCE):
    """Polls `condition` until it gives something true, which is returned."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(0.02)


class Child:
    """A program of ours; its output is kept line by line."""

    def __init__(self, command, env=None, keep="stdout", stdin=subprocess.DEVNULL):
        self.process = subprocess.Popen(command, env=env, stdin=stdin,
                                        stdout=subprocess.PIPE if keep == "stdout" else subprocess.DEVNULL,
                                        stderr=subprocess.PIPE if keep == "stderr" else subprocess.DEVNULL)
        self.lines = []
        self._stream = getattr(self.process, keep)
        self._fresh = queue.Queue()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        for line in self._stream:
            text = line.decode(errors="replace").rstrip("\n")
            self.lines.append(text)
            self._fresh.put(text)
        self._fresh.put(None)

    def wait_for_line(self, pattern, timeout=PATIENCE):
        """The next line that `pattern` is found in, as a match."""
        end = time.monotonic() + timeout
        while True:
            try:
                line = self._fresh.get(timeout=max(end - time.monotonic(), 0.001))
            except queue.Empty:
                line = None
            if line is None:
                raise AssertionError(f"no line with {pattern!r} in:\n" + "\n".join(self.lines))
            match = re.search(pattern, line)
            if match:
                return match

    def say(self, line, answer):
        """Types a line on its standard input, a pipe; gives the next line with the answer, as a match."""
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()
        return self.wait_for_line(answer)

    def send(self, number):
        self.process.send_signal(number)

    def end(self, number=signal.SIGTERM, timeout=PATIENCE):
        """Asks the program to end, and gives its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("it did not end:\n" + "\n".join(self.lines)) from None
        self._thread.join(timeout)
        self._stream.close()
        if self.process.stdin:
            self.process.stdin.close()
        return status


class Host:
    """A navox-host that serves a port, with a run-time folder of its own. Leaving it checks how it ends."""

    def __init__(self, *arguments, port="COM5", stdin=subprocess.DEVNULL):
        self.arguments = arguments
        self.port = port
        self.stdin = stdin

    def __enter__(self):
        self._folder = tempfile.TemporaryDirectory(prefix="navox-e2e-")
        self.runtime = self._folder.name
        self.folder = pathlib.Path(self.runtime) / "navox"
        self.child = Child([_arguments.host, "--tcp", "127.0.0.1:0", *self.arguments],
                           env=dict(os.environ, XDG_RUNTIME_DIR=self.runtime), keep="stderr", stdin=self.stdin)
        try:
            self.tcp_port = int(self.child.wait_for_line(r"tcp 127\.0\.0\.1:(\d+)$")[1])
        except BaseException:
            self.__exit__(AssertionError, None, None)
            raise
        return self

    def __exit__(self, kind, value, traceback):
        status = self.child.end(signal.SIGINT)
        self._folder.cleanup()
        if kind is None and status != 0:
            raise AssertionError(f"exit status {status}:\n" + "\n".join(self.child.lines))

    @property
    def pid(self):
        return self.child.process.pid

    def pty(self, number):
        return str(self.folder / f"{self.port}-{number}")

    def connect(self, receive_buffer=None):
        """A TCP connection, that is, one more handle."""
        program = socket.socket()
        if receive_buffer:
            program.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        program.settimeout(PATIENCE)
        program.connect(("127.0.0.1", self.tcp_port))
        return program

    def status(self):
        """The rows of the status table, by the program's name."""
        answer = run_host("--status", "--port", self.port, runtime=self.runtime)
        if answer.returncode != 0:
            raise AssertionError(answer.stderr.decode())
        rows = {}
        for line in answer.stdout.decode().splitlines():
            match = re.match(r" *(\d+)  (\S.*?) +([\d.]+) +(\d+) +(\d+) +(\d+) +(\d+)(.*)$", line)
            if match:
                rows[match[2]] = {"delivered": int(match[4]), "dropped": int(match[5]), "queued": int(match[6]),
                                  "pending": int(match[7]), "blocked": "does not read" in match[8]}
        return rows


def receive(program, size, timeout=PATIENCE):
    """At least `size` bytes from a socket."""
    end = time.monotonic() + timeout
    data = b""
    while len(data) < size:
        program.settimeout(max(end - time.monotonic(), 0.001))
        piece = program.recv(65536)
        if not piece:
            raise AssertionError(f"the connection ended after {len(data)} of {size} bytes")
        data += piece
    return data


def place_in(stream, sentences):
    """Where `stream` begins in the endless replay of `sentences`; an AssertionError unless all of it is there."""
    replay = sentences * (len(stream) // len(sentences) + 2)
    place = replay.find(stream)
    if place >= 0:
        return place
    common = 0
    for start in (match.end() for match in re.finditer(rb"\n", b"\n" + sentences)):
        length = len(os.path.commonprefix([stream, replay[start - 1:start - 1 + len(stream)]]))
        common = max(common, length)
    raise AssertionError(f"after {common} bytes not as recorded: {stream[max(common - 80, 0):common + 80]!r}")


def checksum_holds(sentence):
    """Whether a sentence, with its line end, has the right checksum."""
    match = re.fullmatch(rb"\$([^*]*)\*([0-9A-F]{2})\r?\n", sentence)
    if not match:
        return False
    value = 0
    for byte in match[1]:
        value ^= byte
    return value == int(match[2], 16)
