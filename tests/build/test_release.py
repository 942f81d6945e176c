"""scripts/release and scripts/package: the same tag gives the same tarball, the packages are built from it, and what
cannot be released or packaged is refused with its reason.

Each case has a small repository of its own with the project's scripts. dpkg-buildpackage and the checks of its result are
stand-ins: building the packages takes minutes.
"""

import hashlib
import os
import pathlib
import shutil
import subprocess
import tarfile
import tempfile
import unittest

from configure import ROOT

GIT = {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_SYSTEM": "/dev/null", "GIT_AUTHOR_NAME": "T", "GIT_AUTHOR_EMAIL": "t@t.test",
       "GIT_COMMITTER_NAME": "T", "GIT_COMMITTER_EMAIL": "t@t.test", "GIT_COMMITTER_DATE": "2026-11-22T12:00:00+0100"}
# It finds the folder debian/ beside the sources, and leaves what the checks read.
BUILD_PACKAGE = """#!/bin/bash
echo "$(basename "$PWD"): $(head -n 1 debian/changelog), $(cat src/text), $DEB_BUILD_OPTIONS" >"$CALLS"
touch ../zavd_1.2.3-1_all.deb
"""


class Repository(unittest.TestCase):
    def setUp(self):
        keeper = tempfile.TemporaryDirectory(prefix="zav-release-")
        self.addCleanup(keeper.cleanup)
        self.folder = pathlib.Path(keeper.name)
        self.root = self.folder / "tree"
        shutil.copytree(ROOT / "scripts", self.root / "scripts")
        # What the scripts install on a developer's machine is not this test's subject.
        self.write("scripts/packages.txt", "# none\n")
        self.write("packaging/packages.txt", "# none\n")
        self.write("packaging/debian/changelog", "zav (1.2.3-1) unstable; urgency=medium\n\n  * Text.\n\n"
                   " -- T <t@t.test>  Sun, 22 Nov 2026 00:00:00 +0000\n")
        self.write("CMakeLists.txt", "project(zav VERSION 1.2.3 LANGUAGES CXX)\n")
        self.write("CHANGELOG.md", "## Unreleased\n\n## 1.2.3 - 2026-11-22\n")
        self.write(".gitignore", "/build/\n")
        self.write("src/text", "released\n")
        self.git("init", "--quiet")
        self.commit()
        self.git("tag", "v1.2.3")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def git(self, *words):
        subprocess.run(["git", *words], cwd=self.root, env={**os.environ, **GIT}, check=True, capture_output=True)

    def commit(self):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--message", "x")

    def run_script(self, *words, root=None, **environment):
        """(exit status, output)"""
        done = subprocess.run(words, cwd=root or self.root, env={**os.environ, **GIT, **environment}, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return done.returncode, done.stdout.strip()

    def release(self, root=None):
        status, said = self.run_script("scripts/release", "v1.2.3", root=root)
        self.assertEqual((status, said), (0, "build/release-v1.2.3/zav-1.2.3.tar.xz"))
        return (root or self.root) / said

    def refused(self, *words, **environment):
        """The reason."""
        status, said = self.run_script(*words, **environment)
        self.assertEqual(status, 1, said)
        self.assertFalse((self.root / "build").exists())
        return said


class ReleaseTest(Repository):
    def test_the_same_tag_gives_the_same_bytes(self):
        first = hashlib.sha256(self.release().read_bytes()).hexdigest()
        self.write("src/text", "later\n")
        self.commit()
        self.assertEqual(hashlib.sha256(self.release().read_bytes()).hexdigest(), first)
        elsewhere = self.folder / "elsewhere"
        self.git("clone", "--quiet", str(self.root), str(elsewhere))
        subprocess.run(["git", "config", "tar.umask", "0077"], cwd=elsewhere, check=True)
        self.assertEqual(hashlib.sha256(self.release(elsewhere).read_bytes()).hexdigest(), first)

    def test_it_holds_the_files_of_the_tag_and_has_checksums(self):
        tarball = self.release()
        with tarfile.open(tarball) as archive:
            self.assertEqual(archive.extractfile("zav-1.2.3/src/text").read(), b"released\n")
            self.assertEqual({name.split("/")[0] for name in archive.getnames()}, {"zav-1.2.3"})
        for algorithm in ("sha256", "sha512"):
            subprocess.run([f"{algorithm}sum", "--check", "--strict", "--quiet", f"{tarball.name}.{algorithm}"],
                           cwd=tarball.parent, check=True)

    def test_what_is_no_tag_of_a_release_is_refused(self):
        self.assertEqual(self.refused("scripts/release", "v1.2.4"), "scripts/release: there is no tag 'v1.2.4'")
        for words in ((), ("1.2.3",), ("v1.2.3", "v1.2.3")):
            self.assertEqual(self.run_script("scripts/release", *words),
                             (2, "scripts/release takes one tag, such as v1.2.3"))

    def test_a_working_tree_with_changes_is_refused(self):
        self.write("src/new", "")
        self.assertEqual(self.refused("scripts/release", "v1.2.3"),
                         "scripts/release: the working tree has changes that are in no release:\n?? src/new")

    def test_a_tag_that_does_not_match_its_tree_is_refused(self):
        self.git("tag", "v1.3.0")
        self.assertEqual(self.refused("scripts/release", "v1.3.0"),
                         "scripts/release: in v1.3.0, CMakeLists.txt says version '1.2.3'")
        self.write("CMakeLists.txt", "project(zav VERSION 1.4.0 LANGUAGES CXX)\n")
        self.commit()
        self.git("tag", "v1.4.0")
        self.assertEqual(self.refused("scripts/release", "v1.4.0"),
                         "scripts/release: in v1.4.0, CHANGELOG.md has no section '1.4.0'")

    def test_sources_without_their_history_are_refused(self):
        shutil.rmtree(self.root / ".git")
        self.assertIn("is not", self.refused("scripts/release", "v1.2.3"))


@unittest.skipUnless(shutil.which("dpkg-parsechangelog"), "not a Debian machine")
class PackageTest(Repository):
    def package(self, *words, **environment):
        programs = self.folder / "programs"
        programs.mkdir()
        for name, script in (("dpkg-buildpackage", BUILD_PACKAGE), ("blhc", "#!/bin/sh\n"), ("lintian", "#!/bin/sh\n")):
            (programs / name).write_text(script)
            (programs / name).chmod(0o755)
        calls = self.folder / "calls"
        status, said = self.run_script("scripts/package", *words, CALLS=str(calls),
                                       PATH=f"{programs}:{os.environ['PATH']}", **environment)
        self.assertEqual(status, 0, said)
        return calls.read_text()

    def test_packages_are_built_from_the_tarball(self):
        tarball = self.release()
        self.write("src/text", "later\n")
        built = self.package("--from", str(tarball), DEB_BUILD_OPTIONS="x")
        self.assertEqual(built, "zav-1.2.3: zav (1.2.3-1) unstable; urgency=medium, released, x\n")

    def test_without_a_tarball_from_the_working_tree(self):
        self.write("src/text", "later\n")
        self.write("build/text", "ignored\n")
        built = self.package(DEB_BUILD_OPTIONS="x")
        self.assertEqual(built, "zav-1.2.3: zav (1.2.3-1) unstable; urgency=medium, later, x\n")
        with tarfile.open(self.root / "build/packages/zav_1.2.3.orig.tar.xz") as archive:
            self.assertNotIn("zav-1.2.3/build/text", archive.getnames())

    def test_what_cannot_be_packaged_is_refused(self):
        other = self.folder / "other.tar.xz"
        other.write_text("text")
        self.assertEqual(self.refused("scripts/package", "--from", "nothing"),
                         "scripts/package: there is no file 'nothing'")
        self.assertEqual(self.refused("scripts/package", "--from", str(other)),
                         f"scripts/package: '{other}' is not a source tarball of this project")
        self.assertRegex(self.refused("scripts/package", DEB_HOST_ARCH="mips"),
                         "^scripts/package: the packages are built for this machine's architecture, .*, not for mips$")
        self.write("CMakeLists.txt", "project(zav VERSION 1.4.0 LANGUAGES CXX)\n")
        self.assertEqual(self.refused("scripts/package"), "scripts/package: packaging/debian/changelog is for version "
                         "1.2.3, the sources are version 1.4.0")


if __name__ == "__main__":
    unittest.main(verbosity=2)
