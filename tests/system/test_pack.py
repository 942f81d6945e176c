"""`zavctl pack`, `unpack` and `fleet` for a phone: it applies what they publish, the openssl program decrypts it, and a kill at
any moment leaves whole files.
"""

import contextlib
import json
import os
import shutil
import signal
import subprocess
import tempfile

import phone
from files import LABEL, direct

MAC = phone.MAC.replace(":", "-")
FILES = 1500


def zavctl(*words, status=0):
    done = subprocess.run(["zavctl", "--json", *words], capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
    assert (done.returncode, done.stderr) == (status, ""), (words, done)
    return json.loads(done.stdout)


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def decrypted(path):
    """By the phone's own command."""
    return subprocess.run(["openssl", "enc", "-aes-128-cbc", "-d", "-in", path, "-pass", f"file:{phone.KEY_FILE}"],
                          capture_output=True, check=True).stdout.decode()


class PackTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": "https://provisioning.test/%MACD/"}

    def setUp(self):
        super().setUp()
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.key = f"{self.folder}/key"
        shutil.copy(phone.KEY_FILE, self.key)
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW)

    def pack(self, source, target):
        return zavctl("pack", f"{self.folder}/{source}", "--key", self.key, "--to", target)

    def test_the_phone_applies_what_is_packed(self):
        text = direct([(LABEL, "packed <&>")], mac=phone.MAC)
        write(f"{self.folder}/in/{MAC}/provisioning.xml", text)
        self.assertEqual(self.pack("in", phone.WWW)["encrypted"], [f"{MAC}/provisioning.xml"])
        self.assertEqual(decrypted(f"{phone.WWW}/{MAC}/provisioning.xml"), text)
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.bus.get(LABEL), "packed <&>")

    def test_the_phone_applies_its_row(self):
        name = 'Jürgen "the boss" <&>'
        write(f"{self.folder}/t.csv", 'mac,label\r\n{},"{}"\r\n02:00:5E:10:00:77,other\r\n'.format(
            phone.MAC, name.replace('"', '""')))
        write(f"{self.folder}/t/{{MACD}}/provisioning.xml", direct([(LABEL, "{label}")], mac="{MACC}"))
        answer = zavctl("fleet", f"{self.folder}/t.csv", f"{self.folder}/t", phone.WWW, "--key", self.key)
        self.assertEqual((answer["rows"], answer["written"], answer["failed"]), (2, 2, []))
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.bus.get(LABEL), name)

    def test_a_kill_leaves_whole_files(self):
        """Killed once files are staged, and once the first one is in its place; the next run completes the work."""
        old, new = ({f"{one % 10}/{one}.xml": direct([(LABEL, f"{word} {one}")]) for one in range(FILES)}
                    for word in ("old", "new"))
        target = f"{self.folder}/out"
        staging = f"{target}/.zavctl-staging"
        for name, text in old.items():
            write(f"{self.folder}/old/{name}", text)
            write(f"{self.folder}/new/{name}", new[name])
        self.pack("old", target)
        first = f"{target}/0/0.xml"

        def staged():
            with contextlib.suppress(FileNotFoundError):
                return len(os.listdir(staging)) > FILES / 10
            return False

        for moment in (staged, lambda inode=os.stat(first).st_ino: os.stat(first).st_ino != inode):
            with subprocess.Popen(["zavctl", "pack", f"{self.folder}/new", "--key", self.key, "--to", target],
                                  stdout=subprocess.DEVNULL) as process:
                phone.wait_until(lambda moment=moment, process=process: moment() or process.poll() is not None, "the moment")
                process.send_signal(signal.SIGKILL)
            shutil.rmtree(f"{self.folder}/back", ignore_errors=True)
            answer = zavctl("unpack", target, "--key", self.key, "--to", f"{self.folder}/back")
            self.assertEqual(len(answer["decrypted"]), FILES)
            for name in old:
                with open(f"{self.folder}/back/{name}", encoding="utf-8") as file:
                    self.assertIn(file.read(), (old[name], new[name]))
            if moment is staged:
                self.assertEqual(process.returncode, -signal.SIGKILL)
        answer = self.pack("new", target)
        self.assertEqual(len(answer["encrypted"]) + answer["unchanged"], FILES)
        self.assertFalse(os.path.exists(staging))
        self.assertEqual(self.pack("new", target)["unchanged"], FILES)
        self.assertEqual(decrypted(first), new["0/0.xml"])

    def test_a_full_disk_changes_nothing(self):
        """The disk of 1 MB is full while files are staged."""
        write(f"{self.folder}/in/a/provisioning.xml", direct([(LABEL, "old")]))
        target = f"{self.folder}/small"
        os.mkdir(target)
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", target], capture_output=True, check=False)
        if mounted.returncode != 0:
            self.skipTest("this sandbox cannot mount")
        self.addCleanup(subprocess.run, ["umount", target], check=True)
        self.pack("in", target)
        write(f"{self.folder}/in/a/provisioning.xml", direct([(LABEL, "new")]))
        write(f"{self.folder}/in/image", "i" * 2000000)
        answer = zavctl("pack", f"{self.folder}/in", "--key", self.key, "--to", target, status=1)
        # Both are written at the same moment: the image fills the disk, and the other file may come too late.
        self.assertRegex(answer["reason"], r"(image|a/provisioning\.xml): cannot be written: No space left on device")
        self.assertIn("old", decrypted(f"{target}/a/provisioning.xml"))
        self.assertEqual(os.listdir(target), ["a"])


if __name__ == "__main__":
    phone.main()
