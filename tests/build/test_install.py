"""What `cmake --install` installs: each file in one component; platform libraries that other projects find, with CMake
and with pkg-config; a lab that runs from where it is installed.

test_install.py BUILD_DIRECTORY
"""

import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import unittest

from configure import ROOT

BUILD = os.path.realpath(sys.argv.pop() if len(sys.argv) > 1 else ROOT / "build" / "release")
COMPONENTS = ("zavd", "prop-service", "catalogue", "zavctl", "dev", "lab", "platform-tests", "doc")

PROGRAM = r"""
#include <iostream>
#include "http/UrlInfo.h"
#include "ipc/IPCFactory.h"
#include "propertyprotocol/Topics.h"
int main(int, char** arguments) {
    const auto bus = ipc::IPCFactory::createService("consumer");
    std::cout << zav::UrlInfo(arguments[1]).host() << " " << propertyprotocol::getTopic << std::endl;
}
"""
LISTING = """
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES CXX)
%s
find_package(zav %s)
message(STATUS "found: ${zav_FOUND}, CURL: ${CURL_FOUND}")
if(zav_http_FOUND)
  add_executable(consumer main.cpp)
  target_link_libraries(consumer PRIVATE zav::http zav::propertyprotocol)
endif()
"""


def run(*command, environment=None):
    """(exit status, what was said on one line)"""
    done = subprocess.run(command, env={**os.environ, **(environment or {})}, stdin=subprocess.DEVNULL, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode, " ".join(done.stdout.split())


def install(prefix, *arguments):
    status, said = run("cmake", "--install", BUILD, "--prefix", str(prefix), *arguments)
    if status != 0:
        raise AssertionError(said)
    return {path.relative_to(prefix) for path in prefix.rglob("*") if not path.is_dir() or path.is_symlink()}


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.keeper = tempfile.TemporaryDirectory(prefix="zav-install-")
        cls.addClassCleanup(cls.keeper.cleanup)
        cls.folder = pathlib.Path(cls.keeper.name)
        cls.prefix = cls.folder / "all"
        cls.files = install(cls.prefix)

    def names(self):
        return {path.name for path in self.files}


class Components(Installed):
    def test_each_file_is_in_one(self):
        found = {name: install(self.folder / name, "--component", name) for name in COMPONENTS}
        self.assertEqual([name for name in COMPONENTS if not found[name]], [])
        everything = sorted(file for files in found.values() for file in files)
        self.assertEqual(everything, sorted(self.files))

    def test_links_lead_to_installed_files(self):
        links = [path for path in self.prefix.rglob("*") if path.is_symlink()]
        self.assertTrue(links)
        for link in links:
            self.assertFalse(os.path.isabs(os.readlink(link)), link)
            self.assertTrue(link.resolve(strict=True).is_relative_to(self.prefix.resolve()), link)


class Platform(Installed):
    def configure(self, arguments, before=""):
        """(exit status, output, build folder) of another project's configuration."""
        source = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        (source / "main.cpp").write_text(PROGRAM)
        (source / "CMakeLists.txt").write_text(LISTING % (before, arguments))
        status, said = run("cmake", "-S", str(source), "-B", str(source / "build"), "-G", "Ninja",
                           f"-DCMAKE_PREFIX_PATH={self.prefix}")
        return status, said, source / "build"

    def check_program(self, path):
        self.assertEqual(run(path, "https://provisioning.test/phones/"), (0, "provisioning.test prop-service/get"))

    def test_a_project_finds_them_with_cmake(self):
        status, said, build = self.configure("0.2 REQUIRED COMPONENTS http propertyprotocol")
        self.assertEqual(status, 0, said)
        status, said = run("ninja", "-C", str(build))
        self.assertEqual(status, 0, said)
        self.check_program(f"{build}/consumer")

    def test_a_project_finds_them_with_pkg_config(self):
        modules = next(self.prefix.rglob("zav-http.pc")).parent
        environment = {"PKG_CONFIG_PATH": str(modules)}
        status, flags = run("pkg-config", "--cflags", "--libs", "zav-http", "zav-propertyprotocol",
                            environment=environment)
        self.assertEqual(status, 0, flags)
        (self.folder / "main.cpp").write_text(PROGRAM)
        status, said = run("g++", "-std=c++17", f"{self.folder}/main.cpp", "-o", f"{self.folder}/consumer",
                           *shlex.split(flags))
        self.assertEqual(status, 0, said)
        self.check_program(f"{self.folder}/consumer")

    def test_every_header_compiles_by_itself(self):
        headers = sorted((self.prefix / "include" / "zav").rglob("*.h"))
        self.assertTrue(headers)
        modules = next(self.prefix.rglob("zav-http.pc")).parent
        for header in headers:
            with self.subTest(header.name):
                library = {"debug": "dbg"}.get(header.parent.name, header.parent.name)
                status, flags = run("pkg-config", "--cflags", f"zav-{library}",
                                    environment={"PKG_CONFIG_PATH": str(modules)})
                self.assertEqual(status, 0, flags)
                self.assertEqual(run("g++", "-std=c++17", "-fsyntax-only", "-x", "c++", *shlex.split(flags),
                                     "-include", str(header), "/dev/null"), (0, ""))

    def test_a_library_asks_only_for_what_it_needs(self):
        status, said, _ = self.configure("REQUIRED COMPONENTS version")
        self.assertEqual((status, "found: 1, CURL: " in said, "CURL: TRUE" in said), (0, True, False), said)

    def test_mistakes_are_named(self):
        elsewhere = 'set(CMAKE_LIBRARY_ARCHITECTURE "riscv64-linux-gnu")'
        for arguments, before, reason in (
                ("REQUIRED COMPONENTS htpp", "", "zav has no component 'htpp'. Its components are: dbg, common, "),
                ("REQUIRED COMPONENTS ipc", elsewhere, "and this build is for riscv64-linux-gnu."),
                ("REQUIRED COMPONENTS ipc", 'set(ENV{PKG_CONFIG_LIBDIR} "/nonexistent")',
                 "zav needs libmosquitto>=2.0, which pkg-config does not find."),
                ("99.0 REQUIRED", "", "requested version \"99.0\"")):
            with self.subTest(reason):
                status, said, _ = self.configure(arguments, before)
                self.assertEqual(status, 1, said)
                self.assertIn(reason, said)


class Lab(Installed):
    def test_it_runs_from_where_it_is_installed(self):
        status, said = run(f"{self.prefix}/bin/zav-phone", "--no-boot-pass", "--", "/bin/sh", "-c",
                           "readlink /proc/$(cat /run/phone/daemon.pid)/exe; zavctl get Time.Format")
        self.assertEqual((status, said), (0, f"{self.prefix}/sbin/zavd 24h"))

    def test_the_demonstration_runs_too(self):
        status, said = run(f"{self.prefix}/bin/zav-demo")
        self.assertEqual(status, 0, said)
        self.assertIn("All as promised.", said)

    def test_a_missing_program_is_named(self):
        lab = self.folder / "alone"
        install(lab, "--component", "lab")
        self.assertEqual(run(f"{lab}/bin/zav-phone", "--", "true"),
                         (1, f"lab/phone: {lab}/libexec/zav/programs/bin/prop-service is missing; install it"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
