"""Two gpsd, one on a PTY and one on TCP, both report the recorded positions."""

import json
import re
import socket
import unittest

import navox

REPORTS = 5  # positions that each gpsd must give


class Gpsd(unittest.TestCase):
    def report(self, gpsd, source):
        """Runs gpsd on `source` until it has reported enough, each of them where the journey is then."""
        port = navox.free_port()
        daemon = navox.Child([gpsd, "-N", "-n", "-S", str(port), source], keep="stderr")
        try:
            navox.wait_until(lambda: self.listens(port), f"gpsd listens on {port}")
            with socket.create_connection(("127.0.0.1", port), navox.PATIENCE) as watcher:
                watcher.sendall(b'?WATCH={"enable":true,"json":true};\n')
                reports = (json.loads(line) for line in watcher.makefile())
                fixes = (report for report in reports if report.get("mode", 0) >= 2 and "lat" in report)
                for _ in range(REPORTS):
                    self.check(next(fixes))
        finally:
            daemon.end()

    @staticmethod
    def listens(port):
        # Not by connecting: gpsd would take it for a client.
        wanted = f"0100007F:{port:04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            return any(line.split()[1] == wanted and line.split()[3] == "0A" for line in list(table)[1:])

    def check(self, fix):
        minute, second = re.search(r"T12:(\d\d):(\d\d)", fix["time"]).groups()
        self.assertAlmostEqual(fix["lat"], 47.5 + (60 * int(minute) + int(second)) / 60_000, delta=2e-6)
        self.assertEqual(fix["lon"], 9.5)

    def test_a_terminal_and_a_connection(self):
        gpsd = navox.need_program("gpsd")
        path, _ = navox.journey()
        with navox.Host("--quiet", "--replay", path, "--rate", "5") as host:
            keeper = host.connect()  # the stream goes on between the two
            for source in (host.pty(1), f"tcp://127.0.0.1:{host.tcp_port}"):
                with self.subTest(source=source):
                    self.report(gpsd, source)
            keeper.close()
            navox.wait_until(lambda: not host.status(), "both have closed their handles")


if __name__ == "__main__":
    navox.main()
