"""A whole run: sentences on standard output, the summary, the registry file, the trace, signals and the status."""

import json
import pathlib
import re
import signal
import tempfile
import unittest

import navox

KEY = r"HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Enum\USB"


class Run(unittest.TestCase):
    def test_two_seconds_and_the_summary(self):
        with tempfile.TemporaryDirectory() as name:
            trace = pathlib.Path(name) / "trace.json"
            answer = navox.run_host("--for", "3.2", "--tcp", "127.0.0.1:0", "--rate", "10", "--trace", str(trace))
            self.assertEqual(answer.returncode, 0, answer.stderr.decode())
            self.assertTrue(answer.stdout.startswith(navox.EMPTY_FIX))
            sentences = answer.stdout[len(navox.EMPTY_FIX):].splitlines(keepends=True)
            self.assertGreater(len(sentences), 20)
            for sentence in sentences:
                self.assertTrue(navox.checksum_holds(sentence), sentence)

            summary = answer.stderr.decode()
            self.assertRegex(summary, r"(?m)^clients +1 opened the port; (\d+) bytes delivered, 0 dropped")
            self.assertRegex(summary, r"(?m)^findings +none$")
            transfers = re.search(r"(?m)^transfers +(\d+) with \d+ bytes, (\d+) of them sentences$", summary)
            self.assertIsNotNone(transfers, summary)
            self.assertGreaterEqual(int(transfers[2]), len(answer.stdout) - len(navox.EMPTY_FIX))
            self.assertGreater(int(transfers[1]), 5)
            self.check_trace(json.loads(trace.read_bytes()))

    def check_trace(self, trace):
        events = trace["traceEvents"] if isinstance(trace, dict) else trace
        names = {event["name"] for event in events}
        self.assertTrue({"load", "unload"} <= names, names)
        begun, ended = ({(event["cat"], event["id"], event["name"]) for event in events if event["ph"] == phase}
                        for phase in "be")
        self.assertGreater(len(begun), 20, "requests are spans")
        self.assertEqual(begun - ended, set(), "and each of them ends")

    def test_the_registry_names_the_port_and_is_saved(self):
        with tempfile.TemporaryDirectory() as name:
            file = pathlib.Path(name) / "machine.reg"
            file.write_text("Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Kept]\n"
                            '"Answer"=dword:0000002a\n')
            with navox.Host("--registry", str(file), "--port", "COM7", "--quiet", port="COM7"):
                pass
            saved = file.read_bytes().decode("utf-16")
            self.assertIn('"Answer"=dword:0000002a', saved)
            self.assertRegex(saved, r'"PortName"="COM7"')
            # What was saved names the port next time, and what an open handle leaves there is saved, too.
            with navox.Host("--registry", str(file), "--quiet", port="COM7") as host:
                with host.connect() as program:
                    navox.receive(program, len(navox.EMPTY_FIX))
                navox.wait_until(lambda: not host.status(), "the handle is closed")
            saved = file.read_bytes().decode("utf-16")
            self.assertRegex(saved, r'"OpenHandles"=dword:00000000')

    def test_signals(self):
        with navox.Host("--rate", "0") as host:
            host.child.send(signal.SIGUSR1)
            host.child.wait_for_line(r"^port +COM5, started$")
            host.child.wait_for_line(r"^module ")
            row = host.child.wait_for_line(r"^ +1  standard output +[\d.]+ +32 +0 +0 +(\d)$")
            self.assertEqual(row[1], "1", "the wait is pending")
            self.assertEqual(host.child.end(signal.SIGTERM), 0)
            self.assertTrue(any(re.match("findings +none", line) for line in host.child.lines))
            self.assertFalse(pathlib.Path(host.pty(1)).is_symlink(), "the links are gone")


if __name__ == "__main__":
    navox.main()
