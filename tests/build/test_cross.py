"""Cross builds without a cross compiler: toolchain files, the sysroot, the lists, and error messages. Building and running
the tests for another architecture is for scripts/test arm64 and scripts/test armhf."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from configure import ROOT

sys.path.insert(0, str(ROOT / "tests/architecture"))
from test_behaviours import existing_tests  # pylint: disable=wrong-import-position

ARCHITECTURES = {"arm64": ("aarch64-linux-gnu", "qemu-aarch64"), "armhf": ("arm-linux-gnueabihf", "qemu-arm")}
DEADLINE = 30
SOURCES = ["Debian deb http://packages.test/debian/ stable main",
           "Debian deb http://packages.test/debian/ stable-updates main",
           "Other deb http://other.test/ stable main"]
# Stands in for mmdebstrap: writes the archive in $ARCHIVE, or what it is told in $MODE.
MMDEBSTRAP = """#!/bin/sh
echo "$@" >>"$CALLS"
cat >>"$CALLS"
case $MODE in
    fail) echo "E: Unable to locate package" >&2; exit 1 ;;
    cut) head -c 2000 "$ARCHIVE"; exit 0 ;;
    hang) head -c 2000 "$ARCHIVE"; echo $$ >"$CALLS.pid"; mv "$CALLS.pid" "$CALLS.hangs"; exec sleep 60 ;;
esac
cat "$ARCHIVE"
"""


def wait_until(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within {DEADLINE} s: {what}")
        time.sleep(0.01)


def program(path, text):
    path.write_text(text, encoding="utf-8")
    path.chmod(0o755)


def packages(path):
    return [line.split("#")[0].strip() for line in (ROOT / path).read_text().splitlines() if not line.startswith("#")]


class Temporary(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zav-cross-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)


class ToolchainTest(Temporary):
    """The toolchain files in CMake's script mode, with programs that are only named like a compiler and an emulator."""

    def setUp(self):
        super().setUp()
        self.sysroot = self.folder / "sysroot"
        (self.sysroot / "usr").mkdir(parents=True)
        (self.folder / "bin").mkdir()
        for names in ARCHITECTURES.values():
            for name in (f"{names[0]}-g++", names[1]):
                program(self.folder / "bin" / name, "#!/bin/sh\n")

    def run_cmake(self, text, *definitions):
        script = self.folder / "script.cmake"
        script.write_text(text)
        done = subprocess.run([shutil.which("cmake"), *(f"-D{definition}" for definition in definitions), "-P", script],
                              env={**os.environ, "PATH": f"{self.folder}/bin"}, capture_output=True, text=True)
        return done.returncode, done.stdout + done.stderr

    def variables(self, architecture, *names):
        values = [f"$ENV{{{name[4:]}}}" if name.startswith("ENV ") else f"${{{name}}}" for name in names]
        prints = "".join(f'message("{name}={value}")\n' for name, value in zip(names, values))
        status, said = self.run_cmake(f"include({ROOT}/cmake/toolchains/{architecture}.cmake)\n{prints}",
                                      f"ZAV_SYSROOT={self.sysroot}")
        self.assertEqual(status, 0, said)
        return [line.partition("=")[2] for line in said.splitlines()]

    def test_compiler_sysroot_and_emulator_of_each_architecture(self):
        for architecture, (triplet, emulator) in ARCHITECTURES.items():
            found = self.variables(architecture, "CMAKE_SYSTEM_NAME", "CMAKE_CXX_COMPILER", "CMAKE_SYSROOT",
                                   "CMAKE_CROSSCOMPILING_EMULATOR")
            self.assertEqual(found, ["Linux", f"{self.folder}/bin/{triplet}-g++", str(self.sysroot),
                                     f"{self.folder}/bin/{emulator};-L;{self.sysroot}"])

    def test_libraries_are_looked_for_in_the_sysroot_only(self):
        for architecture, (triplet, _) in ARCHITECTURES.items():
            found = self.variables(architecture, "CMAKE_FIND_ROOT_PATH", *(
                f"CMAKE_FIND_ROOT_PATH_MODE_{kind}" for kind in ("LIBRARY", "INCLUDE", "PACKAGE", "PROGRAM")),
                "ENV PKG_CONFIG_PATH", "ENV PKG_CONFIG_SYSROOT_DIR", "ENV PKG_CONFIG_LIBDIR")
            folders = [f"{self.sysroot}/usr/lib/{triplet}/pkgconfig", f"{self.sysroot}/usr/share/pkgconfig"]
            self.assertEqual(found, [str(self.sysroot), "ONLY", "ONLY", "ONLY", "NEVER", "", str(self.sysroot),
                                     ":".join(folders)])

    def test_a_missing_compiler_is_named(self):
        status, said = self.run_cmake("set(ZAV_TRIPLET none-linux-gnu)\nset(ZAV_ARCHITECTURE none)\n"
                                      f"include({ROOT}/cmake/toolchains/debian-cross.cmake)\n",
                                      f"ZAV_SYSROOT={self.sysroot}")
        self.assertNotEqual(status, 0)
        self.assertIn("The compiler none-linux-gnu-g++ is missing; install Debian's g++-none-linux-gnu",
                      " ".join(said.split()))

    def test_a_missing_sysroot_is_named(self):
        status, said = self.run_cmake(f"include({ROOT}/cmake/toolchains/arm64.cmake)\n",
                                      f"ZAV_SYSROOT={self.folder}/nothing")
        self.assertNotEqual(status, 0)
        self.assertIn(f"There is no sysroot in {self.folder}/nothing; scripts/sysroot arm64 makes one",
                      " ".join(said.split()))


class SysrootTest(Temporary):
    """scripts/sysroot in a tree of its own, with stand-ins for apt and mmdebstrap."""

    LIST = "# build\ncmake  # no library\n# libraries\nlibone-dev  # reason\nlibtwo-dev  # reason\n# checks\nlinter  # no library\n"

    def setUp(self):
        super().setUp()
        self.tree, self.calls = self.folder / "tree", self.folder / "calls"
        (self.tree / "scripts").mkdir(parents=True)
        shutil.copy(ROOT / "scripts/sysroot", self.tree / "scripts")
        self.list = self.tree / "scripts/packages.txt"
        self.list.write_text(self.LIST)
        self.sysroot = self.tree / "build/sysroot-arm64"
        (self.folder / "bin").mkdir()
        program(self.folder / "bin/mmdebstrap", MMDEBSTRAP)
        self.sources(*SOURCES)
        self.archive()

    def sources(self, *lines):
        program(self.folder / "bin/apt-get", "#!/bin/sh\n" + "".join(f"echo '{line}'\n" for line in lines))

    def archive(self):
        content = self.folder / "content"
        libraries = content / "usr/lib/aarch64-linux-gnu"
        for folder in (libraries, content / "lib/aarch64-linux-gnu", content / "usr/bin", content / "etc", content / "usr/share/doc"):
            folder.mkdir(parents=True)
            (folder / "file").write_text("x" * 3000)
        (content / "lib/aarch64-linux-gnu/libm.so.6").write_text("the library")
        (libraries / "libm.so").symlink_to("/lib/aarch64-linux-gnu/libm.so.6")
        (libraries / "libn.so").symlink_to("file")
        subprocess.run(["tar", "-C", content, "-cf", self.folder / "archive.tar", "."], check=True)

    def start(self, mode="", architecture="arm64"):
        environment = {**os.environ, "PATH": f"{self.folder}/bin:{os.environ['PATH']}", "CALLS": str(self.calls),
                       "ARCHIVE": str(self.folder / "archive.tar"), "MODE": mode}
        return subprocess.Popen([self.tree / "scripts/sysroot", architecture], env=environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def make(self, mode="", architecture="arm64"):
        process = self.start(mode, architecture)
        said = process.communicate(timeout=DEADLINE)[0]
        return process.returncode, said

    def times_made(self):
        return self.calls.read_text().count("--variant=extract") if self.calls.exists() else 0

    def assert_whole(self):
        self.assertEqual((self.sysroot / "usr/lib/aarch64-linux-gnu/libm.so").read_text(), "the library")
        self.assertEqual(sorted(os.listdir(self.tree / "build")), ["sysroot-arm64", "sysroot-arm64.lock"])

    def test_it_is_made_once(self):
        self.assertEqual(self.make(), (0, "Making build/sysroot-arm64 ...\n"))
        self.assert_whole()
        self.assertEqual(self.make(), (0, ""))
        self.assertEqual(self.times_made(), 1)

    def test_it_has_the_listed_libraries_of_this_machines_release(self):
        self.make()
        calls = self.calls.read_text()
        self.assertIn("--architectures=arm64", calls)
        self.assertIn("--include=libc6-dev,libone-dev,libtwo-dev\n", calls)
        self.assertTrue(calls.endswith("\ndeb http://packages.test/debian/ stable main\n"), calls)

    def test_it_has_no_programs_and_no_configuration(self):
        self.make()
        self.assertEqual(sorted(os.listdir(self.sysroot)), ["lib", "recipe", "usr"])
        self.assertEqual(sorted(os.listdir(self.sysroot / "usr")), ["lib", "share"])
        self.assertEqual(os.listdir(self.sysroot / "usr/share"), [])

    def test_absolute_links_stay_inside(self):
        self.make()
        libraries = self.sysroot / "usr/lib/aarch64-linux-gnu"
        self.assertEqual(os.readlink(libraries / "libm.so"), "../../../lib/aarch64-linux-gnu/libm.so.6")
        self.assertEqual(os.readlink(libraries / "libn.so"), "file")

    def test_a_changed_list_makes_it_anew(self):
        self.make()
        self.list.write_text(self.LIST.replace("libtwo-dev", "libthree-dev"))
        self.assertEqual(self.make()[0], 0)
        self.assertEqual(self.times_made(), 2)
        self.list.write_text(self.list.read_text().replace("linter", "checker"))
        self.assertEqual(self.make(), (0, ""))

    def test_a_failure_shows_its_reason_and_leaves_nothing(self):
        for mode, reason in (("fail", "E: Unable to locate package"), ("cut", "tar: Unexpected EOF in archive")):
            status, said = self.make(mode)
            self.assertEqual(status, 1)
            self.assertIn(reason, said)
            self.assertTrue(said.endswith("scripts/sysroot: cannot make the sysroot for arm64, see above\n"), said)
            self.assertFalse(self.sysroot.exists())
        self.assertEqual(self.make()[0], 0)
        self.assert_whole()

    def test_a_failure_keeps_the_last_one_until_there_is_a_new_one(self):
        self.make()
        self.list.write_text(self.LIST.replace("libtwo-dev", "libthree-dev"))
        self.assertEqual(self.make("fail")[0], 1)
        self.assertTrue((self.sysroot / "recipe").exists())
        self.assertEqual(self.make()[0], 0)
        self.assert_whole()

    def test_an_interrupted_one_is_not_taken_for_a_whole_one(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            process = self.start("hang")
            self.addCleanup(process.stdout.close)
            hangs = pathlib.Path(f"{self.calls}.hangs")
            wait_until(hangs.exists, "mmdebstrap runs")
            maker = int(hangs.read_text())
            hangs.unlink()
            process.send_signal(number)
            process.wait(DEADLINE)
            if number == signal.SIGKILL:  # mmdebstrap would go on
                os.kill(maker, signal.SIGKILL)
            self.assertFalse(self.sysroot.exists())
            self.assertEqual(self.make()[0], 0)
            self.assert_whole()
            shutil.rmtree(self.sysroot)

    def test_a_folder_without_its_recipe_is_not_taken_for_a_whole_one(self):
        (self.sysroot / "usr").mkdir(parents=True)
        (self.tree / "build/sysroot-arm64.new/usr").mkdir(parents=True)
        self.assertEqual(self.make(), (0, "Making build/sysroot-arm64 ...\n"))
        self.assert_whole()

    def test_it_needs_debians_package_sources(self):
        self.sources("Other deb http://other.test/ stable main")
        self.assertEqual(self.make(),
                         (1, "scripts/sysroot: apt knows no Debian package sources; run apt-get update\n"))

    def test_it_needs_a_list_of_libraries(self):
        self.list.write_text(self.LIST.replace("# libraries", "# others"))
        self.assertEqual(self.make(), (1, "scripts/sysroot: scripts/packages.txt has no libraries\n"))

    def test_an_unknown_architecture_is_refused(self):
        self.assertEqual(self.make(architecture="mips"),
                         (2, "scripts/sysroot: unknown architecture 'mips'; it takes arm64 or armhf\n"))


class BuildTest(unittest.TestCase):
    def test_an_unknown_preset_is_refused_with_the_known_ones(self):
        done = subprocess.run([ROOT / "scripts/build", "mips"], capture_output=True, text=True, stdin=subprocess.DEVNULL)
        self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
        self.assertRegex(done.stderr, r"^scripts/build: there is no preset 'mips'; there are: .*\brelease\b.* arm64 armhf\b")
        self.assertFalse((ROOT / "build/mips").exists())


class ListsTest(unittest.TestCase):
    def test_every_package_of_cross_builds_has_its_reason(self):
        lines = (ROOT / "packaging/packages-cross.txt").read_text().splitlines()
        for line in lines:
            self.assertRegex(line, r"^(# .*|[a-z0-9.+-]+ +# \S.*)$")
        self.assertEqual({f"g++-{triplet}" for triplet, _ in ARCHITECTURES.values()} - set(packages(
            "packaging/packages-cross.txt")), set())

    def test_the_page_for_ports_has_the_least_versions(self):
        def rows(page, heading):
            section = (ROOT / page).read_text().split(f"\n## {heading}\n")[1].split("\n## ")[0]
            return dict(re.findall(r"^\| (\w+) \| ([\d.]+) \|", section, re.M))
        listed = rows("docs/operating.md", "Requirements")
        del listed["Linux"]
        self.assertIn("libcurl", listed)
        self.assertEqual(rows("docs/porting.md", "Recipe"), listed)

    def test_every_test_that_the_emulator_cannot_run_exists_and_has_its_reason(self):
        known, programs = existing_tests(), set()
        for path in (ROOT / "tests").rglob("CMakeLists.txt"):
            programs.update(re.findall(r"^zav_test\((\w+)", path.read_text(), re.M))
        for row in (ROOT / "tests/emulation.txt").read_text().splitlines():
            if row.startswith("#"):
                continue
            architecture, name, test, reason = row.split(maxsplit=3)
            self.assertIn(architecture, ("*", *ARCHITECTURES))
            self.assertIn(name, programs)
            self.assertIn(re.sub(r"^\w+/|/\w+$", "", test), known)
            self.assertTrue(reason)


if __name__ == "__main__":
    unittest.main(verbosity=2)
