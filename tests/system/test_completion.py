"""The Tab key in real shells on a terminal, with the program, the broker and the property service of this build."""

import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import tempfile
import termios
import time
import unittest

import phone

COMPLETIONS = f"{phone.PROJECT}/packaging/completions"
KEY = "NET.MAC.Address"
# What a shell writes when it reads keys, and after what it was asked for: no program prints it.
MARK = b"\x1e"

ZSH = r"""
PS1='' LISTMAX=0
unsetopt beep prompt_cr prompt_sp
fpath=(@COMPLETIONS@ $fpath)
autoload -Uz compinit
compinit -u -D
reads() { print -rn -- $'\x1e' }
tab() { zle expand-or-complete; zle -R; print -rn -- $'\x1e'"$BUFFER"$'\x1e'; zle send-break }
list() { zle list-choices; zle -R; print -rn -- $'\x1e'; zle send-break }
zle -N zle-line-init reads
zle -N tab
zle -N list
bindkey '^I' tab '^L' list
unset zle_bracketed_paste
"""

BASH = r"""
PS1=$'\x1e' HISTFILE=
bind 'set enable-bracketed-paste off' 'set bell-style none' 2>/dev/null
. @COMPLETIONS@/zavctl.bash
written() { printf '\x1e%s\x1e' "$READLINE_LINE"; READLINE_LINE=''; }
bind -x '"\C-o": written'
"""


def keys(prefix=""):
    return subprocess.run(["zavctl", "keys", prefix], capture_output=True, text=True, check=True).stdout.split()


def help_text(*command):
    return subprocess.run(["zavctl", *command, "--help"], capture_output=True, text=True, check=True).stdout


def commands():
    return sorted(re.findall(r"^  ([a-z]+) ", help_text().partition("Subcommands:\n")[2].partition("\n\n")[0], re.M))


class Shell:
    """A shell with a terminal of its own, wide and high enough for everything that it may list."""

    def __init__(self, command, setup_file, setup):
        self.folder = tempfile.TemporaryDirectory()
        self.home = self.folder.name
        with open(f"{self.home}/{setup_file}", "w", encoding="utf-8") as file:
            file.write(setup.replace("@COMPLETIONS@", COMPLETIONS))
        self.terminal, inside = pty.openpty()
        fcntl.ioctl(inside, termios.TIOCSWINSZ, struct.pack("HHHH", 2000, 200, 0, 0))
        self.written = b""
        self.process = subprocess.Popen(
            ["setsid", "--ctty", *command], stdin=inside, stdout=inside, stderr=inside, start_new_session=True,
            cwd=self.home, env={"PATH": os.environ["PATH"], "HOME": self.home, "ZDOTDIR": self.home, "TERM": "dumb"})
        os.close(inside)

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.terminal)
        self.folder.cleanup()

    def press(self, text):
        os.write(self.terminal, text.encode())

    def until_mark(self):
        """What the terminal shows up to the next mark."""
        end = time.monotonic() + phone.DEADLINE
        while MARK not in self.written:
            if not select.select([self.terminal], [], [], max(0, end - time.monotonic()))[0]:
                raise phone.Late(f"no mark after {self.written!r}")
            try:
                self.written += os.read(self.terminal, 65536)
            except OSError as error:
                raise AssertionError(f"the shell has ended after {self.written!r}") from error
        shown, _, self.written = self.written.partition(MARK)
        return shown.decode().replace("\r", "")


class ZshCompletionTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.begin("")

    def begin(self, more):
        self.shell = Shell(["zsh", "-d", "-i"], ".zshrc", ZSH + more)
        self.addCleanup(self.shell.close)
        self.assertEqual(self.shell.until_mark().strip(), "", "the shell begins without a word")

    def offered(self, line):
        """The names that are listed below the line. Whatever else the terminal shows counts as a name, too."""
        self.shell.press(line + "\f")
        first, *rows = self.shell.until_mark().split("\n")
        self.shell.until_mark()
        self.assertEqual(first, line)
        if rows:
            self.assertEqual(rows.pop(), line)
        return sorted(word for row in rows for word in row.split(" -- ")[0].split())

    def completed(self, line):
        """The line after Tab."""
        self.shell.press(line + "\t")
        self.shell.until_mark()
        after = self.shell.until_mark()
        self.shell.until_mark()
        return after

    def test_commands(self):
        self.assertIn("provision", commands())
        self.assertEqual(self.offered("zavctl "), commands())
        self.assertEqual(self.offered("zavctl --json --host localhost re"), ["reset", "restore"])
        self.assertEqual(self.completed("zavctl stat"), "zavctl status ")
        self.assertEqual(self.offered("zavctl help "), commands())
        self.assertEqual(self.completed("zavctl help stat"), "zavctl help status ")
        self.assertEqual(self.offered("zavctl --version "), [])
        self.assertEqual(self.offered("zavctl no-such "), ["--help", "--host", "--json"])

    def test_options(self):
        common = ["--help", "--host", "--json"]
        self.assertEqual(self.offered("zavctl --"), [*common, "--version"])
        for command in commands():
            with self.subTest(command):
                own = re.findall(r"^  (--[a-z-]+)", help_text(command), re.M)
                self.assertEqual(self.offered(f"zavctl {command} --"), sorted([*common, *own]))
        self.assertEqual(self.completed("zavctl import --ap"), "zavctl import --apply ")
        self.assertEqual(self.completed(f"zavctl get {KEY} --js"), f"zavctl get {KEY} --json ")

    def test_keys_of_the_running_service(self):
        vlan = keys("NET.VLAN.")
        self.assertGreater(len(vlan), 1)
        for command in ("get", "set", "describe", "list", "reset", "watch", "export", "keys", "get --json", "get --"):
            with self.subTest(command):
                self.assertEqual(self.offered(f"zavctl {command} NET.VL"), vlan)
                self.assertEqual(self.completed(f"zavctl {command} NET.MA"), f"zavctl {command} {KEY} ")
        self.assertEqual(self.offered("zavctl get "), sorted(keys()))
        self.assertEqual(self.completed("zavctl get NET.VL"), "zavctl get NET.VLAN.")
        self.assertEqual(self.offered("zavctl get No.Such"), [])

    def test_the_broker_that_is_named_is_asked(self):
        for host in ("--host localhost:1883", "--host=localhost:1883", "--host 'localhost:1883'", "--host=localhost"):
            with self.subTest(host):
                self.assertEqual(self.completed(f"zavctl {host} get NET.MA"), f"zavctl {host} get {KEY} ")
                self.assertEqual(self.completed(f"zavctl get {host} NET.MA"), f"zavctl get {host} {KEY} ")
        for host in ("--host 127.0.0.1:9", "--host=127.0.0.1:9"):
            with self.subTest(host):
                self.assertEqual(self.offered(f"zavctl {host} get NET.MA"), [])
                self.assertEqual(self.offered(f"zavctl get {host} NET.MA"), [])

    def test_the_shells_own_ways_to_match(self):
        self.assertEqual(self.offered("zavctl get net.vl"), [])
        self.begin("zstyle ':completion:*' matcher-list '' 'm:{a-z}={A-Z}' 'r:|.=* r:|=*'\n")
        self.assertEqual(self.offered("zavctl get net.vl"), keys("NET.VLAN."))
        self.assertEqual(self.completed("zavctl get N.MA.A"), f"zavctl get {KEY} ")

    def test_a_value_is_not_completed(self):
        self.assertEqual(self.offered(f"zavctl set {KEY} "), [])
        self.assertEqual(self.offered(f"zavctl set {KEY} N"), [])
        self.assertEqual(self.offered(f"zavctl get {KEY} N"), [])

    def test_files(self):
        for name in ("audio.json", "autumn.json"):
            with open(f"{self.shell.home}/{name}", "w", encoding="ascii"):
                pass
        for command in ("import", "import --apply", "diff", "diff audio.json", "backup", "restore"):
            with self.subTest(command):
                self.assertEqual(self.offered(f"zavctl {command} au"), ["audio.json", "autumn.json"])
        self.assertEqual(self.offered("zavctl diff audio.json autumn.json au"), [])
        os.mkdir(f"{self.shell.home}/saved")
        self.assertEqual(self.completed("zavctl import sav"), "zavctl import saved/")

    def test_without_a_service_nothing_is_offered_and_nothing_said(self):
        phone.service("stop", "properties")
        try:
            self.assertEqual(self.offered("zavctl get NET.MA"), [])
            phone.service("stop", "broker")
            self.assertEqual(self.offered("zavctl get NET.MA"), [])
            self.assertEqual(self.completed("zavctl get NET.MA"), "zavctl get NET.MA")
            self.assertEqual(self.completed("zavctl stat"), "zavctl status ")
        finally:
            if phone.service("status", "broker", check=False) != 0:
                phone.service("start", "broker")
            phone.service("start", "properties")
        self.assertEqual(self.completed("zavctl get NET.MA"), f"zavctl get {KEY} ")


class BashCompletionTest(unittest.TestCase):
    def setUp(self):
        self.shell = Shell(["bash", "--noprofile", "--rcfile", "setup", "-i"], "setup", BASH)
        self.addCleanup(self.shell.close)
        self.assertEqual(self.shell.until_mark().strip(), "", "the shell begins without a word")

    def completed(self, line):
        """The line after Tab."""
        self.shell.press(line + "\t\x0f")
        self.shell.until_mark()
        after = self.shell.until_mark()
        self.shell.until_mark()
        return after

    def test_commands_and_keys(self):
        self.assertEqual(self.completed("zavctl stat"), "zavctl status ")
        self.assertEqual(self.completed("zavctl get NET.MA"), f"zavctl get {KEY} ")
        self.assertEqual(self.completed("zavctl get NET.VL"), "zavctl get NET.VLAN.")
        self.assertEqual(self.completed("zavctl get No.Such"), "zavctl get No.Such")

    def test_the_broker_that_is_named_is_asked(self):
        for host in ("--host localhost:1883", "--host=localhost:1883", "--host=localhost"):
            with self.subTest(host):
                self.assertEqual(self.completed(f"zavctl {host} get NET.MA"), f"zavctl {host} get {KEY} ")
                self.assertEqual(self.completed(f"zavctl get {host} NET.MA"), f"zavctl get {host} {KEY} ")
        for host in ("--host 127.0.0.1:9", "--host=127.0.0.1:9"):
            with self.subTest(host):
                self.assertEqual(self.completed(f"zavctl {host} get NET.MA"), f"zavctl {host} get NET.MA")


if __name__ == "__main__":
    phone.main()
