"""gpsd, on a PTY and on TCP, reports the positions of what is replayed."""

import json
import re
import socket
import unittest

import navox

REPORTS = 5  # positions that each gpsd must give
CLOSE = 2e-6  # degrees: the last digit of the sentences
FIX = re.compile(r"\$G[NP](?:RMC,(\d{6})(?:\.0+)?,A|GGA,(\d{6})(?:\.0+)?),([\d.]+),([NS]),([\d.]+),([EW]),")


def degrees(value, hemisphere):
    whole, minutes = re.fullmatch(r"(\d{2,3})(\d\d\.\d+)", value).groups()
    return (int(whole) + float(minutes) / 60) * (-1 if hemisphere in "SW" else 1)


def positions(sentences):
    """Latitude and longitude by time of day, "22:37:45", from the RMC and GGA sentences of whole seconds."""
    found = {}
    for sentence in sentences.decode().splitlines():
        match = FIX.match(sentence)
        if match:
            time = ":".join(re.findall("..", match[1] or match[2]))
            found[time] = degrees(match[3], match[4]), degrees(match[5], match[6])
    return found


class Gpsd(unittest.TestCase):
    def report(self, gpsd, source, recorded):
        """Runs gpsd on `source` until it has reported enough, each of them where the receiver was then."""
        port = navox.free_port()
        daemon = navox.Child([gpsd, "-N", "-n", "-S", str(port), source], keep="stderr")
        try:
            navox.wait_until(lambda: self.listens(port), f"gpsd listens on {port}")
            with socket.create_connection(("127.0.0.1", port), navox.PATIENCE) as watcher:
                watcher.sendall(b'?WATCH={"enable":true,"json":true};\n')
                reports = (json.loads(line) for line in watcher.makefile())
                fixes = (report for report in reports if report.get("mode", 0) >= 2 and {"time", "lat"} <= report.keys())
                for _ in range(REPORTS):
                    fix = next(fixes)
                    latitude, longitude = recorded[re.search(r"T(\d\d:\d\d:\d\d)\.0", fix["time"])[1]]
                    self.assertAlmostEqual(fix["lat"], latitude, delta=CLOSE)
                    self.assertAlmostEqual(fix["lon"], longitude, delta=CLOSE)
        finally:
            daemon.end()

    @staticmethod
    def listens(port):
        # Not by connecting: gpsd would take it for a client.
        wanted = f"0100007F:{port:04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            return any(line.split()[1] == wanted and line.split()[3] == "0A" for line in list(table)[1:])

    def replay(self, path, sentences):
        gpsd = navox.need_program("gpsd")
        with navox.Host("--quiet", "--replay", path, "--rate", "5") as host:
            keeper = host.connect()  # the stream goes on between the two
            for source in (host.pty(1), f"tcp://127.0.0.1:{host.tcp_port}"):
                with self.subTest(source=source):
                    self.report(gpsd, source, positions(sentences))
            keeper.close()
            navox.wait_until(lambda: not host.status(), "both have closed their handles")

    def test_a_journey(self):
        self.replay(*navox.journey())

    def test_recordings_of_receivers(self):
        for path, sentences in navox.recordings():
            if len(positions(sentences)) > 50:  # the others hardly know where they are
                self.replay(path, sentences)


if __name__ == "__main__":
    navox.main()
