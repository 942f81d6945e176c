"""The options of lab/phone and the actions of lab/service: each works, in pairs too, or says in one line what is wrong.

Runs on the machine itself, not inside lab/phone: test_lab.py BUILD_DIRECTORY
"""

import concurrent.futures
import itertools
import os
import subprocess
import sys
import tempfile
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = sys.argv.pop() if len(sys.argv) > 1 else os.path.join(PROJECT, "build", "release")
NOTHING = ("--no-broker", "--no-properties", "--no-server", "--no-daemon")
WAIT = "until grep -q ready /run/phone/{}.log; do sleep 0.05; done; "


def phone(options, script="true"):
    """(exit status, lines said) of a shell script inside a phone with these options."""
    done = subprocess.run([f"{PROJECT}/lab/phone", "--build", BUILD, *options, "--", "/bin/sh", "-c", script],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=150, check=False)
    return done.returncode, done.stdout.decode(errors="replace").splitlines()


class OptionsTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.options = [("--www", f"{PROJECT}/lab/fixtures/direct", "--bind", self.folder), ("--set", "Time.Format=12h"),
                        ("--state",), ("--real-time",), ("--clock-by-hand",), ("--broker-defaults",), ("--device-services",),
                        ("--no-boot-pass",), *((option,) for option in NOTHING)]

    def with_state(self, number, options):
        """Each phone has a folder of its own for what it keeps."""
        return [word for option in options
                for word in ((*option, f"{self.folder}/state-{number}") if option == ("--state",) else option)]

    def test_each_pair_works_or_is_refused_in_one_line(self):
        pairs = [self.with_state(number, pair) for number, pair in enumerate(itertools.combinations(self.options, 2))]
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            for options, (status, said) in zip(pairs, pool.map(phone, pairs)):
                with self.subTest(options):
                    if status == 2:
                        self.assertEqual([line[:11] for line in said], ["lab/phone: "], said)
                    else:
                        self.assertEqual((status, said), (0, []))

    def test_what_cannot_work_is_refused(self):
        for options, reason in [
                (["--www"], "--www needs an argument"), (["--www", "/none"], "--www: there is no folder '/none'"),
                (["--bind", "/none"], "--bind: there is no folder '/none'"), (["--state", "/proc/none"], "--state: '/proc/none' cannot be created"),
                (["--set", "Time.Format"], "--set takes KEY=VALUE"), (["--set", "=12h"], "--set takes KEY=VALUE"),
                (["--set", "Time.Format=12h", "--no-broker"], "--set needs the broker"),
                (["--set", "Time.Format=12h", "--no-properties"], "--set needs the broker"),
                (["--no-boot-pass", "--no-properties"], "--no-boot-pass needs the broker"),
                (["--real-time", "--clock-by-hand"], "--real-time and --clock-by-hand cannot be combined"),
                (["--nothing"], "unknown option '--nothing'"), (["zavctl"], "'zavctl' is not an option")]:
            with self.subTest(options):
                done = subprocess.run([f"{PROJECT}/lab/phone", *options], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                      timeout=30, check=False)
                self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
                self.assertIn(f"lab/phone: {reason}", done.stderr)

    def test_a_setting_that_is_refused_ends_the_phone(self):
        status, said = phone(["--no-server", "--no-daemon", "--set", "Time.Format=13h"])
        self.assertEqual(status, 70, said)
        self.assertIn("lab/phone: the setting Time.Format=13h was refused", said)


class ShellTest(unittest.TestCase):
    """What somebody meets who starts lab/phone without a command."""

    def shell(self, text, folder=PROJECT, options=()):
        """(what was printed, what was said beside it) by a shell that reads these lines."""
        done = subprocess.run([f"{PROJECT}/lab/phone", "--build", BUILD, *options], input=text, cwd=folder, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=150, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_the_commands_that_it_suggests_work(self):
        banner = self.shell("exit\n")
        suggested = [line.strip() for line in banner.splitlines() if line.startswith("    ")]
        self.assertEqual(len(suggested), 3, banner)
        said = self.shell("set -e\n" + "\n".join(suggested) + "\n")
        self.assertRegex(said, r"\nsuccess \(HTTP 200, ")
        self.assertIn("\nTelephony.Accounts.0.DisplayName=Front desk\n", said)

    def test_completion_is_there(self):
        said = self.shell("complete -p zavctl\nCOMP_WORDS=(zavctl get NET.MAC.A) COMP_CWORD=2; _zavctl; echo \"$COMPREPLY\"\n")
        self.assertIn("\ncomplete -F _zavctl zavctl\nNET.MAC.Address", said)

    def test_the_folder_of_the_caller_is_visible_and_read_only(self):
        with tempfile.TemporaryDirectory(dir="/var/tmp") as folder:
            with open(f"{folder}/mine.xml", "w", encoding="ascii") as file:
                file.write("mine\n")
            said = self.shell("cat /srv/here/mine.xml\ntouch /srv/here/new || echo refused\n", folder)
            self.assertTrue(said.endswith("is /srv/here, read-only.\nmine\nrefused\n"), said)
            self.assertEqual(os.listdir(folder), ["mine.xml"])
        self.assertNotIn("/srv/here", self.shell("exit\n"))

    def test_a_folder_of_the_caller_is_published_as_it_is(self):
        fixtures = f"{PROJECT}/lab/fixtures/two-levels"
        said = self.shell("ls /srv/www | tr '\\n' ' '\n", options=("--www", fixtures))
        self.assertTrue(said.endswith(" ".join(sorted(os.listdir(fixtures))) + " "), said)

    def test_a_command_prints_only_its_own_output(self):
        self.assertEqual(phone([], "ls /srv/www; echo mine"), (0, ["mine"]))


class ServiceTest(unittest.TestCase):
    def test_the_device_services_wait_for_a_broker(self):
        script = "service start broker; service start properties; " + WAIT.format("firmware-update") + WAIT.format("certificate-store")
        self.assertEqual(phone(["--no-broker", "--no-properties", "--no-server", "--no-daemon", "--device-services"], script), (0, []))

    def test_what_cannot_work_is_refused(self):
        for script, reason in [("service start server", "server is already running"), ("service stop daemon", "daemon was never started"),
                               ("service ready daemon", "the daemon is not running"), ("service ready server", "'ready' is for the daemon only"),
                               ("service start web", "unknown service 'web'"), ("service pause server", "unknown action 'pause'")]:
            with self.subTest(script):
                status, said = phone(["--no-broker", "--no-properties", "--no-daemon"], script)
                self.assertNotEqual(status, 0)
                self.assertEqual(said, [f"lab/service: {reason}"])

    def test_the_daemon_stays_ready_when_the_property_service_restarts(self):
        script = "service ready daemon; service restart properties; timeout 20 service ready daemon; echo $?"
        self.assertEqual(phone(["--no-boot-pass"], script), (0, ["0"]))

    def test_a_killed_service_starts_again(self):
        script = "for i in 1 2 3 4 5; do kill -9 $(cat /run/phone/server.pid); service start server; done; service status server"
        self.assertEqual(phone(["--no-broker", "--no-properties", "--no-daemon"], script), (0, ["running"]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
