"""The packages on a booted system: installed, used, restarted, crashed, hung, confined, upgraded, purged.

Usage: test_packages.py FOLDER, with the packages in FOLDER. Where containers cannot run, everything is skipped.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import container
from container import Container, wait_until

PACKAGES = ("zav-catalogue", "zav-property-service", "zavctl", "zavd")
SERVICES = ("prop-service", "zavd")
SETTING = "Telephony.Accounts.0.DisplayName"
WWW = "/var/www/html"
FIXTURES = container.ROOT / "lab" / "fixtures" / "fleet"
# The daemon lets the network settle for 90 s.
SETTLED = 180
# What changes on a system whatever is installed, and what the package manager keeps.
BESIDES = ("/dev", "/proc", "/run", "/sys", "/tmp", "/packages", "/var/cache", "/var/lib/apt", "/var/lib/dpkg",
           "/var/lib/systemd", "/var/log", "/var/lib/mosquitto", "/var/tmp", "/etc/passwd-", "/etc/group-",
           "/etc/shadow-", "/etc/gshadow-", "/etc/ld.so.cache", "/etc/.pwd.lock")

folder = tempfile.TemporaryDirectory(prefix="zav-packages-")


def find(given, name):
    found = sorted(pathlib.Path(given).glob(f"{name}_*.deb"))
    if len(found) != 1:
        raise AssertionError(f"one package {name} is needed in {given}, there are {len(found)}")
    return found[0]


def repack(package, into):
    """The same package in a higher version, whose configuration files have one more line."""
    with tempfile.TemporaryDirectory() as unpacked:
        subprocess.run(["dpkg-deb", "-R", package, unpacked], check=True)
        control = pathlib.Path(unpacked, "DEBIAN", "control")
        text = control.read_text(encoding="utf-8")
        version = re.search(r"^Version: (.*)$", text, re.M).group(1)
        control.write_text(text.replace(version, version + "+next"), encoding="utf-8")
        listed = pathlib.Path(unpacked, "DEBIAN", "conffiles")
        for name in listed.read_text(encoding="utf-8").split() if listed.exists() else []:
            with open(unpacked + name, "a", encoding="utf-8") as file:
                file.write("# the next version\n")
        subprocess.run(["dpkg-deb", "--root-owner-group", "-b", unpacked, into], check=True, stdout=subprocess.DEVNULL)


def setUpModule():
    try:
        container.require_namespaces()
    except container.Unavailable as reason:
        raise unittest.SkipTest(str(reason)) from None
    os.chmod(folder.name, 0o755)
    for version in ("first", "next"):
        os.mkdir(f"{folder.name}/{version}")
    for name in PACKAGES:
        package = find(sys.argv[1], name)
        shutil.copy(package, f"{folder.name}/first")
        repack(package, f"{folder.name}/next")
    print(f"The container's tree: {container.tree()}", flush=True)


def tearDownModule():
    folder.cleanup()


class PackagesTest(unittest.TestCase):
    """One boot for a class of cases."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.phone = Container(cls.__name__, folder.name)
        cls.addClassCleanup(cls.phone.stop)

    @classmethod
    def install(cls, version="first"):
        cls.phone.run("sh", "-c", "exec apt-get install -y -q --no-install-recommends "
                      f"-o Dpkg::Options::=--force-confold /packages/{version}/*.deb")

    @classmethod
    def wait_services(cls):
        for service in SERVICES:
            cls.phone.wait_active(service)

    def main_pid(self, service):
        return self.phone.show(service, "MainPID")

    def wait_new_pid(self, service, old):
        wait_until(lambda: self.main_pid(service) not in ("0", old), f"a new process of {service}")
        self.phone.wait_active(service)


class InstalledTest(PackagesTest):
    """On a system that runs, and with no interface eth0 at first."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.install()
        cls.wait_services()
        cls.phone.wait_journal("zavd", "Network not ready yet.")
        cls.phone.plug_in()

    def setUp(self):
        # Tests restart the services more often than people do.
        self.phone.run("systemctl", "reset-failed")
        self.phone.run("systemctl", "start", *SERVICES)
        self.wait_services()

    def settings(self, key):
        return self.phone.run("zavctl", "get", key).strip()

    def log_of(self, run):
        return self.phone.run("journalctl", f"_SYSTEMD_INVOCATION_ID={run}", "--output=cat", "--no-pager")

    def wait_logged(self, text, deadline=container.DEADLINE):
        """Until this run of the daemon has logged the text."""
        run = self.phone.show("zavd", "InvocationID")
        wait_until(lambda: text in self.log_of(run), lambda: f"{text!r} in:\n{self.log_of(run)[-3000:]}", deadline)

    def wait_enabled(self):
        """Until this run of the daemon has let the network settle and its pass after boot-up has ended."""
        self.wait_logged("Enabling provisioning function.", SETTLED)
        wait_until(lambda: self.settings("State.Provisioning.OnBootUp") == "done", "end of the pass after boot-up")

    def publish_fleet(self):
        """The lab's update of a fleet, its initial file encrypted with the phone's key."""
        self.phone.run("sh", "-c", "umask 077 && openssl rand -hex 32 >/etc/zav.d/key && chgrp zavd /etc/zav.d/key && "
                       "chmod 640 /etc/zav.d/key")
        self.phone.write("/config/bin/clean-up-utils.sh", "#!/bin/sh\nrm -rf /config/swupdate/*\n", "755")
        for path in FIXTURES.iterdir():
            self.phone.write(f"{WWW}/{path.name}", path.read_bytes())
        self.phone.write(f"{WWW}/kd4v-2.14.img", os.urandom(1 << 16))
        self.phone.run("sh", "-c", f"""set -e; cd {WWW}
            openssl enc -aes-128-cbc -salt -pass file:/etc/zav.d/key -in provisioning.xml -out new 2>/dev/null
            mv new provisioning.xml
            openssl req -x509 -days 2 -newkey rsa:2048 -nodes -subj /CN=test -keyout /dev/null -out elsewhere.pem 2>/dev/null
            chmod 644 *""")
        self.phone.run("zavctl", "set", "System.Provision.ProvisioningServer", "http://192.0.2.10/")

    def provision(self):
        return self.phone.run("zavctl", "provision", "--wait", check=False)

    def test_services_run_as_users_of_their_own_and_start_at_boot(self):
        for service in SERVICES:
            pid = self.main_pid(service)
            self.assertEqual(self.phone.run("ps", "-o", "user=", "-p", pid).strip(), service)
            self.assertEqual(self.phone.run("systemctl", "is-enabled", service).strip(), "enabled")
            self.assertRegex(self.phone.run("cat", f"/proc/{pid}/status"), r"CapEff:\s*0000000000000000\b")

    def test_folders_are_for_their_service_only(self):
        expected = {"/var/lib/zav": "700 prop-service", "/etc/zav.d": "750 root", "/config": "755 root",
                    "/custom/certs": "755 root", "/config/swupdate": "700 zavd", "/custom/certs/_storage": "700 zavd",
                    "/var/volatile/provisioning": "700 zavd", "/var/volatile/contacts": "700 zavd"}
        modes = self.phone.run("stat", "--format=%n %a %U", *expected).splitlines()
        self.assertEqual(dict(line.split(" ", 1) for line in modes), expected)

    def test_broker_listens_on_loopback_only_and_has_the_access_list(self):
        sockets = self.phone.run("ss", "-Hltn", "sport = :1883").splitlines()
        self.assertEqual({line.split()[3].rsplit(":", 1)[0] for line in sockets}, {"127.0.0.1", "[::1]"})
        self.assertIn("acl_file", self.phone.run("cat", "/etc/mosquitto/conf.d/zav.conf"))
        self.phone.run("test", "-r", "/etc/mosquitto/zav.acl")

    def test_journal_has_the_priorities_of_the_lines(self):
        self.assertEqual(set(self.phone.wait_journal("zavd", "ZAV starting up...")), {6})
        self.assertEqual(set(self.phone.wait_journal("zavd", "Network not ready yet.")), {4})
        self.assertEqual(set(self.phone.wait_journal("zavd", "Network interface is not ready")), {3})
        self.assertEqual(set(self.phone.wait_journal("prop-service", "Connected to the broker")), {6})

    def test_program_that_cannot_start_says_why_as_an_error(self):
        self.phone.run("systemctl", "stop", "zavd")
        self.addCleanup(self.phone.run, "systemctl", "start", "mosquitto")
        self.phone.run("systemctl", "mask", "--runtime", "mosquitto")
        self.addCleanup(self.phone.run, "systemctl", "unmask", "--runtime", "mosquitto")
        self.phone.run("systemctl", "stop", "mosquitto")
        self.phone.run("systemctl", "start", "zavd", check=False)
        self.assertEqual(set(self.phone.wait_journal("zavd", "terminate called after throwing")), {3})

    def test_file_is_applied_into_every_folder(self):
        self.publish_fleet()
        self.wait_enabled()
        self.assertIn("success (HTTP 200", self.provision())
        self.assertEqual(self.settings(SETTING), "Reception, ground floor")
        self.phone.run("test", "-s", "/config/swupdate/kd4v-2.14.img", "-a", "-s", "/var/volatile/contacts/contacts.xml",
                       "-a", "-s", "/custom/certs/_storage/elsewhere.pem")
        document = [level for level, text in self.phone.journal("zavd") if "jobStatus" in text]
        self.assertEqual(set(document), {6}, "each line of the status document is information")

    def test_folder_that_is_taken_away_is_named_in_the_journal(self):
        self.publish_fleet()
        self.phone.override("zavd.service", "[Service]\nReadOnlyPaths=/config\nReadWritePaths=\n"
                            "ReadWritePaths=/var/volatile/provisioning /var/volatile/contacts /custom/certs/_storage\n")
        self.addCleanup(self.phone.run, "systemctl", "restart", "zavd")
        self.addCleanup(self.phone.restore, "zavd.service")
        self.phone.run("systemctl", "restart", "zavd")
        self.wait_enabled()
        said = self.provision()
        self.assertNotIn("success", said.split()[0])
        self.assertIn("Read-only file system", said, "the reason, from the journal")
        lines = [text for level, text in self.phone.journal("zavd") if level <= 4 and "/config/swupdate" in text]
        self.assertTrue([text for text in lines if "Read-only file system" in text], lines)

    def test_folder_that_is_missing_is_named_in_the_journal(self):
        self.addCleanup(self.phone.run, "mv", "/config/kept", "/config/swupdate")
        self.phone.run("mv", "/config/swupdate", "/config/kept")
        self.phone.run("systemctl", "restart", "zavd", check=False)
        self.phone.wait_journal("zavd", "/config/swupdate: No such file or directory")

    def test_restart_ends_the_daemon_in_order(self):
        pid = self.main_pid("zavd")
        self.wait_logged("ZAV initialized.")
        run = self.phone.show("zavd", "InvocationID")
        self.phone.run("systemctl", "restart", "zavd")
        self.wait_new_pid("zavd", pid)
        self.assertIn("ZAV exited", self.log_of(run))

    def test_stopping_a_daemon_that_still_starts_is_not_a_failure(self):
        # A phone without credentials waits 10 s for them; meanwhile the daemon hears no SIGTERM.
        self.phone.run("systemctl", "restart", "zavd")
        self.wait_logged("Waiting for auth user name and password")
        run = self.phone.show("zavd", "InvocationID")
        self.phone.run("systemctl", "stop", "zavd")
        self.assertEqual(self.phone.show("zavd", "Result"), "success")
        self.assertIn("ZAV exited", self.log_of(run))
        self.assertEqual(self.phone.show("zavd-retry.timer", "ActiveState"), "inactive")

    def test_killed_services_come_back_with_their_settings(self):
        self.phone.run("zavctl", "set", SETTING, "kept")
        for service in SERVICES:
            pid = self.main_pid(service)
            self.phone.run("kill", "-9", pid)
            self.wait_new_pid(service, pid)
        self.assertEqual(self.settings(SETTING), "kept")

    def test_quick_attempts_are_counted_and_a_later_series_follows(self):
        self.assertEqual(self.phone.show("zavd", "RestartUSec"), "2s")
        self.assertEqual(self.phone.show("zavd", "StartLimitBurst"), "5")
        self.assertEqual(self.phone.show("zavd", "StartLimitIntervalUSec"), "1min")
        self.assertIn("OnActiveUSec=5min", self.phone.show("zavd-retry.timer", "TimersMonotonic"))
        # As shipped, with shorter times.
        self.phone.override("zavd.service", "[Unit]\nStartLimitIntervalSec=30\n[Service]\nRestartSec=100ms\n")
        self.addCleanup(self.phone.restore, "zavd.service")
        self.phone.override("zavd-retry.timer", "[Timer]\nOnActiveSec=\nOnActiveSec=31\nAccuracySec=100ms\n")
        self.addCleanup(self.phone.restore, "zavd-retry.timer")
        self.phone.run("systemctl", "restart", "zavd")

        def kill_until_it_fails():
            if self.phone.show("zavd", "ActiveState") == "failed":
                return True
            pid = self.main_pid("zavd")
            if pid != "0":
                self.phone.run("kill", "-9", pid, check=False)
            return False

        for _ in range(2):
            wait_until(kill_until_it_fails, "the end of the quick attempts")
            wait_until(lambda: self.phone.show("zavd-retry.timer", "SubState") == "waiting", "the later series")
            self.phone.wait_active("zavd")

    def test_stopping_the_service_ends_its_later_series(self):
        self.phone.run("systemctl", "start", "zavd-retry.timer")
        self.phone.run("systemctl", "stop", "zavd")
        wait_until(lambda: self.phone.show("zavd-retry.timer", "ActiveState") == "inactive", "end of the timer")

    def test_hung_property_service_is_restarted(self):
        self.assertEqual(self.phone.show("prop-service", "WatchdogUSec"), "1min")
        self.phone.override("prop-service.service", "[Service]\nWatchdogSec=20\n")
        self.addCleanup(self.phone.restore, "prop-service.service")
        self.phone.run("systemctl", "restart", "prop-service")
        pid = self.main_pid("prop-service")
        self.phone.run("kill", "-STOP", pid)
        self.phone.wait_journal("prop-service", "Watchdog timeout")
        self.wait_new_pid("prop-service", pid)
        self.settings(SETTING)


class UpgradeTest(PackagesTest):
    def test_upgrade_keeps_configuration_and_settings(self):
        self.install()
        self.wait_services()
        configuration = "/etc/mosquitto/conf.d/zav.conf"
        self.phone.run("sh", "-c", f"echo '# by the administrator' >>{configuration}")
        self.phone.run("zavctl", "set", SETTING, "kept")
        self.phone.run("sh", "-c", "echo secret >/etc/zav.d/key && echo image >/config/swupdate/image")
        before = self.phone.run("dpkg-query", "-W", "zavd")
        pids = [self.main_pid(service) for service in SERVICES]
        self.install("next")
        self.assertNotEqual(self.phone.run("dpkg-query", "-W", "zavd"), before)
        for service, pid in zip(SERVICES, pids):
            self.wait_new_pid(service, pid)
        self.assertEqual(self.phone.run("zavctl", "get", SETTING).strip(), "kept")
        self.assertEqual(self.phone.run("tail", "-n", "1", configuration).strip(), "# by the administrator")
        self.assertEqual(self.phone.run("cat", "/etc/zav.d/key", "/config/swupdate/image"), "secret\nimage\n")


class PurgeTest(PackagesTest):
    def files(self):
        pruned = " -o ".join(f"-path {path}" for path in BESIDES)
        return self.phone.run("sh", "-c", f"find / -xdev \\( {pruned} \\) -prune -o -print").splitlines()

    def test_purge_leaves_no_file(self):
        before = self.files()
        self.install()
        self.wait_services()
        self.phone.run("zavctl", "set", SETTING, "x")
        self.assertGreater(len(set(self.files()) - set(before)), 10)
        self.phone.run("apt-get", "purge", "-y", "-q", *PACKAGES)
        after = self.files()
        self.assertEqual(sorted(set(after) - set(before)), [], "left behind")
        self.assertEqual(sorted(set(before) - set(after)), [], "taken along")
        for service in SERVICES:
            self.assertEqual(self.phone.show(service, "LoadState"), "not-found")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    program = unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2, exit=False)
    failed = len(program.result.failures) + len(program.result.errors)
    passed = max(program.result.testsRun - failed, 0)
    print(f"{passed} passed, {failed} failed, {program.test.countTestCases() - passed - failed} skipped")
    sys.exit(failed > 0)
