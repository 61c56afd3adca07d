"""While the module is silent, nothing in the process wakes up."""

import pathlib
import re
import time
import unittest

import navox

SILENCE = 3  # seconds


def switches(pid):
    """Voluntary context switches of every thread of the process."""
    counts = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        text = (task / "status").read_text()
        counts[task.name] = int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", text, re.M)[1])
    return counts


def settle(host):
    """Waits until the module is set up and all is quiet."""
    def told():
        answer = navox.run_host("--status", runtime=host.runtime)
        return b" in 2 transfers" in answer.stdout
    navox.wait_until(told, "the module is set up")
    quiet_since = time.monotonic()
    last = switches(host.pid)
    end = quiet_since + navox.PATIENCE
    while time.monotonic() - quiet_since < 0.3 and time.monotonic() < end:
        time.sleep(0.05)
        now = switches(host.pid)
        if now != last:
            last, quiet_since = now, time.monotonic()


class Silence(unittest.TestCase):
    def test_nothing_wakes_up(self):
        with navox.Host("--rate", "0") as host:
            programs = [host.connect() for _ in range(8)]
            for program in programs:
                navox.receive(program, len(navox.EMPTY_FIX))
            # The reader has set the module up once its transfers have shown the echo and the answer.
            settle(host)
            before = switches(host.pid)
            time.sleep(SILENCE)
            self.assertEqual(switches(host.pid), before)
            for program in programs:
                program.close()


if __name__ == "__main__":
    navox.main()
