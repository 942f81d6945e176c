"""bash completion, with a fake zavctl that prints keys and records its arguments."""

import os
import subprocess
import sys
import tempfile
import unittest

PROJECT = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../../.."))
BASH = f"{PROJECT}/packaging/completions/zavctl.bash"
ZSH = f"{PROJECT}/packaging/completions/_zavctl"
ZAVCTL = sys.argv.pop(1)

FAKE = """#!/bin/sh
echo "$@" >>"$CALLS"
for prefix; do :; done
printf '%s\\n' NET.MAC.Address NET.VLAN.Tagging State.Provisioning | grep "^$prefix"
"""


class CompletionTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.calls = f"{folder.name}/calls"
        with open(f"{folder.name}/zavctl", "w", encoding="ascii") as file:
            file.write(FAKE)
        os.chmod(f"{folder.name}/zavctl", 0o755)
        self.environment = {"PATH": f"{folder.name}:/usr/bin:/bin", "CALLS": self.calls}

    def offered(self, *words):
        script = f'. {BASH}; COMP_WORDS=(zavctl "$@"); COMP_CWORD=$#; _zavctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
        done = subprocess.run(["bash", "--norc", "-c", script, "bash", *words], env=self.environment,
                              capture_output=True, text=True, check=True)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_commands(self):
        self.assertEqual(self.offered("re"), ["reset", "restore"])
        self.assertEqual(self.offered("--json", "--host", "h:1", "st"), ["status"])

    def test_help_completes_commands(self):
        self.assertEqual(self.offered("help", "re"), ["reset", "restore"])
        self.assertEqual(self.offered("help", "reset", "re"), [])

    def test_every_command_is_offered(self):
        text = subprocess.run([ZAVCTL, "--help"], capture_output=True, text=True, check=True).stdout
        section = text[text.index("Subcommands:"):].split("\n\n")[0]
        commands = sorted(line.split()[0] for line in section.splitlines()[1:]
                          if line.startswith("  ") and not line.startswith("   "))
        self.assertEqual(sorted(self.offered("")), commands)
        with open(ZSH, encoding="utf-8") as file:
            zsh = file.read()
        for command in commands:
            self.assertIn(f"'{command}:", zsh)

    def test_keys_of_the_running_service(self):
        for command in ("get", "set", "describe", "list", "reset", "watch", "export", "keys"):
            self.assertEqual(self.offered(command, "NET."), ["NET.MAC.Address", "NET.VLAN.Tagging"])
        self.assertEqual(self.offered("--host", "h:1", "get", "State"), ["State.Provisioning"])
        with open(self.calls, encoding="ascii") as file:
            self.assertEqual(file.read().splitlines()[-1], "--host h:1 keys State")

    def test_host_split_into_words_by_readline(self):
        for host in (["--host", "h", ":", "1"], ["--host", "=", "h", ":", "1"], ["--host=h:1"]):
            self.assertEqual(self.offered(*host, "get", "NET.M"), ["NET.MAC.Address"])
            self.assertEqual(self.offered("get", *host, "NET.M"), ["NET.MAC.Address"])
        with open(self.calls, encoding="ascii") as file:
            self.assertEqual(set(file.read().splitlines()), {"--host h:1 keys NET.M", "--host=h:1 keys NET.M"})
        for host in (["--host", "s"], ["--host", "=", "s"], ["--host", "="], ["--host", "h", ":"], ["--host", "h", ":", "1"]):
            self.assertEqual(self.offered(*host), [], "the word is part of the address")

    def test_a_value_is_not_completed(self):
        self.assertEqual(self.offered("set", "NET.MAC.Address", "N"), [])

    def test_options(self):
        self.assertEqual(self.offered("import", "--a"), ["--apply"])
        self.assertEqual(self.offered("list", "--sh"), ["--show-secrets"])
        self.assertEqual(self.offered("diff", "--a"), ["--all"])
        self.assertEqual(self.offered("provision", "--w"), ["--wait"])

    def test_without_a_service_nothing_is_offered(self):
        with open(os.path.join(self.environment["PATH"].split(":")[0], "zavctl"), "w", encoding="ascii") as file:
            file.write("#!/bin/sh\necho 'zavctl: no broker' >&2\nexit 3\n")
        self.assertEqual(self.offered("get", "N"), [])


if __name__ == "__main__":
    unittest.main()
