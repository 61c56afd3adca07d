"""Programs on PTYs and TCP connections: each has the whole stream, whatever the others do."""

import os
import threading
import time
import unittest

import navox

try:
    import serial
except ImportError:
    serial = None

NEEDED = 60_000  # bytes, far more than what buffers can hold back


class SerialReader(threading.Thread):
    """A pyserial program: opens the port at 4800 baud, reads lines until it has enough."""

    def __init__(self, path, size):
        super().__init__(daemon=True)
        self.path, self.size, self.data, self.error = path, size, b"", None

    def run(self):
        try:
            with serial.Serial(self.path, 4800, timeout=navox.PATIENCE) as port:
                port.write(b"$PTEST,written to the port*00\r\n")
                while len(self.data) < self.size:
                    line = port.readline()
                    if not line:
                        raise AssertionError("nothing came")
                    self.data += line
        except Exception as error:  # told by the test that waits for this thread
            self.error = error


class Streams(unittest.TestCase):
    def check_stream(self, data, sentences):
        """Gives where in the recording it begins: always with a sentence."""
        self.assertTrue(data.startswith(navox.EMPTY_FIX), data[:80])
        place = navox.place_in(data[len(navox.EMPTY_FIX):], sentences)
        self.assertTrue(place == 0 or sentences[place - 1:place] == b"\n", place)
        return place

    @staticmethod
    def wait_for_row(host, program, **wanted):
        """Until the status of a connection is as wanted: what is on its way just now counts as dropped."""
        name = "tcp 127.0.0.1:%d" % program.getsockname()[1]
        navox.wait_until(lambda: wanted.items() <= host.status()[name].items(), f"{name} is {wanted}")

    def test_the_whole_stream_for_everyone_who_reads(self):
        if serial is None:
            raise unittest.SkipTest("python3-serial is not installed")
        path, sentences = navox.journey()
        with navox.Host("--quiet", "--replay", path, "--rate", "8") as host:
            sleeper = host.connect(receive_buffer=2048)  # never reads
            first = host.connect()
            program = SerialReader(host.pty(1), NEEDED)
            program.start()
            self.assertEqual(self.check_stream(navox.receive(first, NEEDED), sentences), 0,
                             "it was there before the first sentence")
            program.join(navox.PATIENCE)
            self.assertIsNone(program.error)
            self.assertGreaterEqual(len(program.data), NEEDED)
            self.check_stream(program.data, sentences)

            late = host.connect()
            self.check_stream(navox.receive(late, 5_000), sentences)

            asleep = host.status()["tcp 127.0.0.1:%d" % sleeper.getsockname()[1]]
            self.assertEqual((asleep["blocked"], asleep["queued"]), (True, 4096), "its ring is full")
            self.assertGreater(asleep["dropped"], 0)
            self.wait_for_row(host, first, blocked=False, dropped=0, pending=1)
            for connection in (sleeper, first, late):
                connection.close()
            navox.wait_until(lambda: not host.status(), "all handles are closed")
        written = len(b"$PTEST,written to the port*00\r\n")
        self.assertTrue(any(f"{written} written and discarded" in line for line in host.child.lines),
                        host.child.lines)

    def test_recordings_of_receivers(self):
        if serial is None:
            raise unittest.SkipTest("python3-serial is not installed")
        for path, sentences in navox.recordings():
            with self.subTest(path), navox.Host("--quiet", "--replay", path, "--rate", "8") as host:
                connection = host.connect()
                program = SerialReader(host.pty(1), len(sentences))
                program.start()
                data = navox.receive(connection, len(navox.EMPTY_FIX) + len(sentences))
                self.assertEqual(self.check_stream(data, sentences), 0)
                program.join(navox.PATIENCE)
                self.assertIsNone(program.error)
                self.check_stream(program.data, sentences)
                connection.close()

    def test_a_terminal_serves_one_program_after_the_other(self):
        path, sentences = navox.journey()
        with navox.Host("--quiet", "--replay", path, "--rate", "20") as host:
            for _ in range(2):
                terminal = os.open(host.pty(2), os.O_RDWR | os.O_NOCTTY)
                navox.wait_until(lambda: "COM5-2" in host.status(), "it is a handle of the port")
                # Leaves all but the beginning unread; the next program must see none of it.
                self.assertEqual(os.read(terminal, len(navox.EMPTY_FIX)), navox.EMPTY_FIX)
                navox.wait_until(lambda: host.status()["COM5-2"]["delivered"] > 3000, "sentences have come")
                os.close(terminal)
                navox.wait_until(lambda: not host.status(), "the handle is closed")
            # Closed and opened in one breath: another handle all the same.
            terminal = os.open(host.pty(2), os.O_RDWR | os.O_NOCTTY)
            self.assertEqual(os.read(terminal, len(navox.EMPTY_FIX)), navox.EMPTY_FIX)
            os.close(terminal)
            terminal = os.open(host.pty(2), os.O_RDWR | os.O_NOCTTY)
            data = b""
            end = time.monotonic() + navox.PATIENCE
            while len(data) < 3000 and time.monotonic() < end:
                data += os.read(terminal, 4096)
            self.check_stream(data, sentences)
            os.close(terminal)

    def test_many_connections(self):
        path, sentences = navox.journey()
        with navox.Host("--quiet", "--replay", path, "--rate", "20") as host:
            programs = [host.connect() for _ in range(40)]
            self.assertEqual(len(navox.wait_until(lambda: (rows := host.status()) and len(rows) == 40 and rows,
                                                  "forty handles")), 40)
            for index, program in enumerate(programs):
                if index % 4 == 3:
                    program.close()  # while the others go on
            for index, program in enumerate(programs):
                if index % 4 != 3:
                    self.assertEqual(self.check_stream(navox.receive(program, 4_000), sentences), 0)
                    program.sendall(b"AT\r\n" * 100)
                    program.close()
            navox.wait_until(lambda: not host.status(), "all handles are closed")


if __name__ == "__main__":
    navox.main()
