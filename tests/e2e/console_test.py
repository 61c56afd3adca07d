"""The console: what its words do to the machine, and what the programs on the port see of it."""

import os
import pathlib
import subprocess
import tempfile
import unittest

import navox


def lines_of(answer):
    """What the console has said, without the log and the summary."""
    return [line.split(" > ")[1] for line in answer.stderr.decode().splitlines() if " > " in line]


class Console(unittest.TestCase):
    def read_terminal(self, terminal, size):
        data = b""
        while len(data) < size:
            piece = os.read(terminal, 4096)
            if not piece:
                raise OSError("hung up")
            data += piece
        return data

    def test_programs_on_the_port(self):
        with navox.Host("--quiet", "--rate", "10", stdin=subprocess.PIPE) as host:
            for _ in range(2):  # the second time with a module that was pulled
                terminal = os.open(host.pty(1), os.O_RDWR | os.O_NOCTTY)
                connection = host.connect()
                self.assertTrue(self.read_terminal(terminal, 1000).startswith(navox.EMPTY_FIX))
                host.child.say("sleep S3", r"> sleep: system in S3, device in D2$")
                late = os.open(host.pty(2), os.O_RDWR | os.O_NOCTTY)
                navox.wait_until(lambda: len(host.status()) == 3, "a program that comes now waits")
                host.child.say("wake", r"> wake: system in S0, device in D0$")
                self.assertTrue(self.read_terminal(late, 1000).startswith(navox.EMPTY_FIX))
                os.close(late)
                before = navox.wait_until(lambda: (rows := host.status()) and len(rows) == 2 and rows, "all stay")
                for row in before:
                    navox.wait_until(lambda: host.status()[row]["delivered"] > before[row]["delivered"] + 2000,
                                     f"{row} goes on")
                host.child.say("unplug", r"> unplug: .*2 handles closed")
                with self.assertRaises(OSError):
                    self.read_terminal(terminal, 1 << 20)
                os.close(terminal)
                with self.assertRaisesRegex(AssertionError, "the connection ended"):
                    navox.receive(connection, 1 << 20)
                connection.close()
                self.assertFalse(pathlib.Path(host.pty(1)).is_symlink(), "no terminal without a port")
                with host.connect() as early:
                    self.assertEqual(early.recv(1), b"", "there is no port")
                host.child.say("plug", r"> plug: .*COM5 is started$")
            with host.connect() as connection:
                host.child.say("stop", r"> stop: 1 handle closed, the device is stopped$")
                self.assertTrue(connection.recv(4096).startswith(navox.EMPTY_FIX))
                self.assertEqual(connection.recv(1), b"")
            host.child.say("start", r"> start: the device is started$")
            with host.connect() as connection:
                navox.receive(connection, 2000)

    def test_an_idle_module_is_suspended_until_a_program_comes(self):
        with navox.Host("--quiet", "--selective-suspend", stdin=subprocess.PIPE) as host:
            navox.wait_until(lambda: host.child.say("idle", "> idle: (.*)$")[1] ==
                             "0 handles open, 0 requests pending: idle; an idle request is at the hub; "
                             "system in S0, device in D2", "the module is suspended")
            self.assertTrue(pathlib.Path(host.pty(1)).is_symlink())
            with host.connect() as connection:
                navox.receive(connection, 200)
                self.assertEqual(host.child.say("idle", "> idle: (.*)$")[1],
                                 "1 handle open, 1 request pending: busy; no idle request at the hub; "
                                 "system in S0, device in D0")

    def test_scripts_and_settings(self):
        with tempfile.TemporaryDirectory() as name:
            script, registry = (pathlib.Path(name) / file for file in ("script", "machine.reg"))
            script.write_text("wake\nstart\nsleep S4 # deeply\nplug\nstop\nunplug\nplug\n\nafter 10ms wake\nidle\n"
                              "after 5ms after 5ms plug\nstop\nsleep S1\nunplug\nunplug\nsleep S2")
            registry.write_text("Windows Registry Editor Version 5.00\n")
            answer = navox.run_host("--for", "1", "--tcp", "127.0.0.1:0", "--log", "off", "--fast-resume",
                                    "--selective-suspend", "--registry", str(registry), "--script", str(script))
            self.assertEqual(answer.returncode, 0, answer.stderr.decode())
            self.assertEqual(lines_of(answer), [
                "wake: the system is awake already",
                "start: the device is started already",
                "sleep: system in S4, device in D3",
                "plug: the system sleeps",
                "stop: the system sleeps",
                "unplug: the module is pulled, 1 handle closed, the device is gone",
                "plug: the system sleeps",
                "wake: system in S0, no device",
                "idle: no module is plugged in",
                "plug: the module is connected, COM5 is started",
                "stop: 1 handle closed, the device is stopped",
                "sleep: the system stays awake: 0xc0000184",
                "unplug: the module is pulled, 0 handles closed, the device is gone",
                "unplug: no module is plugged in",
                "sleep: system in S2, no device",
            ])
            saved = registry.read_bytes().decode("utf-16")
            for setting in ("EnableSelectiveSuspend", "EnableFR"):
                self.assertIn(f'"{setting}"=dword:00000001', saved)

    def test_lines_that_are_no_command(self):
        typed = b"jump\nsleep S9\nafter 5\nhelp me\n\n  \nidle"  # without a line end
        answers = [navox.run_host("--for", "0.5", "--tcp", "127.0.0.1:0", "--quiet", stdin=text)
                   for text in (typed, b"x" * 10_000 + typed)]
        self.assertEqual(lines_of(answers[0]), [
            'there is no word "jump"; help lists them',
            'sleep takes one of S1 to S4, not "S9"',
            'after takes a time, as 5s or 200ms, not "5"',
            'help is followed by "me", which means nothing',
            "idle: no monitor runs: selective suspend is off",
        ])
        self.assertEqual(lines_of(answers[1]), ["a line has at most 4095 bytes", *lines_of(answers[0])[1:]])
        self.assertEqual([answer.returncode for answer in answers], [0, 0], "such a line ends nothing")


if __name__ == "__main__":
    navox.main()
