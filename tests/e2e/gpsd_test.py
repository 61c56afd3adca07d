"""Two gpsd, one on a PTY and one on TCP, both report the recorded positions."""

import json
import re
import socket
import unittest

import navox

RECORDING = "ublox-neo-m9n-nmea.log"
REPORTS = 5  # positions that each gpsd must give
CLOSE = 2e-6  # degrees: the last digit of the recording


def degrees(value, hemisphere):
    whole, minutes = re.fullmatch(r"(\d{2,3})(\d\d\.\d+)", value).groups()
    return (int(whole) + float(minutes) / 60) * (-1 if hemisphere in "SW" else 1)


def positions(sentences):
    """Latitude and longitude by time of day, "22:37:45.00", from the RMC and GGA sentences."""
    found = {}
    for sentence in sentences.decode().splitlines():
        fields = sentence.split(",")
        kind, first = fields[0][3:], {"RMC": 3, "GGA": 2}.get(fields[0][3:])
        if first is None or not fields[first] or (kind == "RMC" and fields[2] != "A"):
            continue
        time = re.sub(r"(\d\d)(\d\d)(\d\d)\.(\d\d)\d*", r"\1:\2:\3.\4", fields[1])
        found[time] = (degrees(fields[first], fields[first + 1]), degrees(fields[first + 2], fields[first + 3]))
    return found


class Gpsd(unittest.TestCase):
    def report(self, gpsd, source, recorded):
        """Runs gpsd on `source` until it has reported enough, each of them where the recording has it."""
        port = navox.free_port()
        daemon = navox.Child([gpsd, "-N", "-n", "-S", str(port), source], keep="stderr")
        try:
            navox.wait_until(lambda: self.listens(port), f"gpsd listens on {port}")
            with socket.create_connection(("127.0.0.1", port), navox.PATIENCE) as watcher:
                watcher.sendall(b'?WATCH={"enable":true,"json":true};\n')
                reports = (json.loads(line) for line in watcher.makefile())
                fixes = (report for report in reports if report.get("mode", 0) >= 2 and "lat" in report)
                for _ in range(REPORTS):
                    self.check(next(fixes), recorded)
        finally:
            daemon.end()

    @staticmethod
    def listens(port):
        # Not by connecting: gpsd would take it for a client.
        wanted = f"0100007F:{port:04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            return any(line.split()[1] == wanted and line.split()[3] == "0A" for line in list(table)[1:])

    def check(self, fix, recorded):
        time = re.search(r"T(\d\d:\d\d:\d\d\.\d\d)", fix["time"])[1]
        self.assertIn(time, recorded)
        latitude, longitude = recorded[time]
        self.assertAlmostEqual(fix["lat"], latitude, delta=CLOSE)
        self.assertAlmostEqual(fix["lon"], longitude, delta=CLOSE)

    def test_a_terminal_and_a_connection(self):
        gpsd = navox.need_program("gpsd")
        path, sentences = navox.recording(RECORDING)
        recorded = positions(sentences)
        self.assertGreater(len(recorded), 50)
        with navox.Host("--quiet", "--replay", path, "--rate", "5") as host:
            keeper = host.connect()  # the stream goes on between the two
            for source in (host.pty(1), f"tcp://127.0.0.1:{host.tcp_port}"):
                with self.subTest(source=source):
                    self.report(gpsd, source, recorded)
            keeper.close()
            navox.wait_until(lambda: not host.status(), "both have closed their handles")


if __name__ == "__main__":
    navox.main()
