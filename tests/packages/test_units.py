"""The unit files: systemd accepts them without a remark, they are as confined as docs/operating.md says, and zavd's
folders are made. Usage: test_units.py BUILD SBINDIR, the build and the folder of the programs in its units."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SERVICES = ("zavd", "prop-service")
LIMIT = 2.0


def unit(service):
    return pathlib.Path(BUILD, "packaging", f"{service}.service")


def analyze(*words):
    done = subprocess.run(["systemd-analyze", "--no-pager", *map(str, words)], capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout + done.stderr


def documented(service):
    """The exposure that the page gives."""
    page = (ROOT / "docs" / "operating.md").read_text(encoding="utf-8")
    return float(re.search(rf"^\| `{service}\.service` \|.*\| (\d\.\d) \|$", page, re.M).group(1))


class Units(unittest.TestCase):
    def test_systemd_accepts_them_without_a_remark(self):
        with tempfile.TemporaryDirectory() as folder:
            for service in SERVICES:
                text = unit(service).read_text(encoding="utf-8")
                # The programs are not installed.
                self.assertIn(f"ExecStart={SBINDIR}/{service}\n", text)
                pathlib.Path(folder, unit(service).name).write_text(text.replace(SBINDIR, f"{BUILD}/bin"), encoding="utf-8")
                shutil.copy(ROOT / "packaging" / "systemd" / f"{service}-retry.timer", folder)
            units = sorted(pathlib.Path(folder).iterdir())
            self.assertEqual(len(units), 4)
            self.assertEqual(analyze("verify", "--man=no", *units), (0, ""))

    def test_they_are_as_confined_as_their_page_says(self):
        for service in SERVICES:
            with self.subTest(service):
                said = analyze("security", "--offline=true", unit(service))[1]
                exposure = float(re.search(r"Overall exposure level for \S+: (\d+\.\d+)", said).group(1))
                self.assertLessEqual(exposure, documented(service))
                self.assertLessEqual(exposure, LIMIT)

    def test_every_folder_that_zavd_may_write_is_made_for_it_alone(self):
        writable = re.search(r"^ReadWritePaths=(.*)$", unit("zavd").read_text(encoding="utf-8"), re.M).group(1).split()
        self.assertGreater(len(writable), 1)
        made = (ROOT / "packaging" / "tmpfiles.d" / "zavd.conf").read_text(encoding="utf-8")
        for folder in writable:
            self.assertRegex(made, rf"(?m)^d {re.escape(folder)} 0700 zavd zavd -$")

    def test_the_pauses_are_those_of_the_page(self):
        page = (ROOT / "docs" / "operating.md").read_text(encoding="utf-8")
        for service in SERVICES:
            text = unit(service).read_text(encoding="utf-8")
            self.assertIn("\nStartLimitBurst=5\n", text)
            pause = re.search(r"^RestartSec=(\d+)$", text, re.M).group(1)
            self.assertIn(f"`{service}` {pause} s", page)
            timer = (ROOT / "packaging" / "systemd" / f"{service}-retry.timer").read_text(encoding="utf-8")
            self.assertIn("\nOnActiveSec=5min\n", timer)
        self.assertIn("five minutes", page)


if __name__ == "__main__":
    if shutil.which("systemd-analyze") is None:
        print("Skipped: systemd-analyze is not installed")
        sys.exit(0)
    BUILD, SBINDIR = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1], verbosity=2)
