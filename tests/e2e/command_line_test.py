"""Wrong arguments, missing files, a busy port: one clear line, exit status 2."""

import pathlib
import socket
import tempfile
import unittest

import navox


class CommandLine(unittest.TestCase):
    def refuse(self, *arguments, says, runtime=None):
        """`says`: words that the one line must have."""
        with self.subTest(arguments=arguments):
            answer = navox.run_host(*arguments, runtime=runtime)
            lines = answer.stderr.decode().splitlines()
            self.assertEqual(answer.returncode, 2, lines)
            self.assertEqual(len(lines), 1, lines)
            self.assertTrue(lines[0].startswith("navox-host: "), lines)
            for word in says:
                self.assertIn(word, lines[0])
            self.assertEqual(answer.stdout, b"")

    def test_wrong_arguments(self):
        for arguments, says in [
            (["--port", "COM0"], ["--port", "COM0"]),
            (["--port", "COM5x"], ["COM5x"]),
            (["--pty", "many"], ["--pty", "many"]),
            (["--script", "/dev/full"], ["/dev/full", "a pipe or a device"]),
            (["--trace", "/dev/full"], ["/dev/full", "a pipe or a device"]),
            (["--port", "\x1b[31m" + "x" * 10000], [r'"\x1b[31mx', " ... ", "is not a port name"]),
            (["--replay", ""], ["--replay"]),
            (["--tcp", "127.0.0.1:65536"], ["--tcp"]),
            (["--tcp", "somewhere:1"], ["somewhere"]),
            (["--tcp", "192.0.2.1:0"], ["192.0.2.1"]),
            (["--rate", "11"], ["--rate"]),
            (["--for", "0"], ["--for"]),
            (["--for", "nan"], ["--for"]),
            (["--log", "loud"], ["--log", "loud"]),
            (["--colour"], ["--colour"]),
            (["COM5"], ["COM5"]),
            (["--status"], ["no instance"]),
        ]:
            self.refuse(*arguments, says=says)

    def test_files_that_cannot_be_used(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "comments.log").write_bytes(b"# nothing else\n")
            (folder / "sentence.log").write_bytes(b"$GPTXT,hello*00\r\n")
            (folder / "bad.reg").write_text(
                'Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE]\n"A"=dword:xyz\n')
            (folder / "script").write_text("# words\nsleep S3\nafter 5s jump\n")
            (folder / "deep.reg").write_text(
                "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE" + r"\a" * 512 + "]\n")
            for arguments, says in [
                (["--script", str(folder / "missing")], ["missing"]),
                (["--script", name], [name]),
                (["--script", str(folder / "script")], ["script", "line 3", "jump"]),
                (["--replay", str(folder / "missing.log")], ["missing.log"]),
                (["--replay", name], [name]),
                (["--replay", str(folder / "comments.log")], ["comments.log"]),
                (["--replay", str(folder / "sentence.log"), "--rate", "1001"], ["1000"]),
                (["--registry", str(folder / "missing.reg")], ["missing.reg"]),
                (["--registry", name], [name]),
                (["--registry", str(folder / "sentence.log")], ["sentence.log", "line 1"]),
                (["--registry", str(folder / "bad.reg")], ["bad.reg", "line 4"]),
                (["--registry", str(folder / "deep.reg")], ["deep.reg", "line 3", "512 levels"]),
                (["--trace", str(folder / "missing" / "trace.json")], ["trace.json"]),
            ]:
                self.refuse("--tcp", "127.0.0.1:0", *arguments, says=says)

    def test_what_is_taken_already(self):
        with socket.create_server(("127.0.0.1", 0)) as other:
            address = f"127.0.0.1:{other.getsockname()[1]}"
            self.refuse("--tcp", address, says=[address, "in use"])
        with navox.Host("--quiet", "--rate", "0") as host:
            self.refuse("--quiet", "--tcp", "127.0.0.1:0", says=["another instance"], runtime=host.runtime)
            self.assertEqual(host.status(), {}, "the first one still serves")

    def test_a_folder_that_others_can_enter(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name) / "navox"
            folder.mkdir()
            folder.chmod(0o777)
            self.refuse("--tcp", "127.0.0.1:0", says=["only this user"], runtime=name)


if __name__ == "__main__":
    navox.main()
