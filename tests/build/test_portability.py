"""What this tree needs of the system: other C and C++ libraries do, and the least versions are those that the page for
operators lists."""

import pathlib
import re
import subprocess
import tempfile
import unittest

from configure import ROOT

# The code next to the operating system.
LIBRARIES = ("debug", "common", "ipc")
# Headers that must not bring this machine's C library along.
LIBRARY_HEADERS = ("mosquitto.h", "mqtt_protocol.h")
KERNEL_HEADERS = ("linux", "asm-generic")


def words(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


class OtherLibraries(unittest.TestCase):
    def test_musl_and_libcxx(self):
        """Their headers only: there is nothing to link with."""
        machine = words("g++", "-print-multiarch")
        with tempfile.TemporaryDirectory(prefix="zav-headers-") as folder:
            for name in (*LIBRARY_HEADERS, *KERNEL_HEADERS):
                (pathlib.Path(folder) / name).symlink_to(f"/usr/include/{name}")
            (pathlib.Path(folder) / "asm").symlink_to(f"/usr/include/{machine}/asm")
            command = ["clang++-14", "-std=c++17", "-fsyntax-only", "-Wall", "-Werror", "-nostdinc", "-nostdinc++",
                       "-D_LIBCPP_HAS_MUSL_LIBC"]
            for place in ("/usr/lib/llvm-14/include/c++/v1", words("clang++-14", "-print-resource-dir") + "/include",
                          f"/usr/include/{machine.replace('gnu', 'musl')}", folder):
                self.assertTrue(pathlib.Path(place).is_dir(), place)
                command += ["-isystem", place]
            for library in LIBRARIES:
                command += ["-I", str(ROOT / "platform" / library / "include")]
            failed = []
            for library in LIBRARIES:
                for source in sorted((ROOT / "platform" / library / "src").glob("*.cpp")):
                    done = subprocess.run([*command, "-I", str(source.parent), str(source)],
                                          capture_output=True, text=True)
                    if done.returncode != 0:
                        failed.append(done.stderr[:1500])
            self.assertEqual(failed, [])


class LeastVersions(unittest.TestCase):
    NAMES = {"OpenSSL": "OpenSSL", "LibXml2": "libxml2", "CURL": "libcurl", "SQLite3": "SQLite", "CLI11": "CLI11",
             "MOSQUITTO": "libmosquitto", "JSONCPP": "jsoncpp", "PCRE2_POSIX": "PCRE2"}

    def test_the_page_lists_what_the_build_asks_for(self):
        listing = (ROOT / "cmake/Dependencies.cmake").read_text()
        asked = dict(re.findall(r"^zav_find_package\((\w+) ([\d.]+) ", listing, re.M))
        asked.update(re.findall(r"^zav_find_module\((\w+) \S+ ([\d.]+) ", listing, re.M))
        self.assertEqual(sorted(asked), sorted(self.NAMES))
        rows = dict(re.findall(r"^\| (\S+) \| ([\d.]+) \|", (ROOT / "docs/operating.md").read_text(), re.M))
        self.assertEqual({self.NAMES[name]: version for name, version in asked.items()},
                         {name: version for name, version in rows.items() if name in self.NAMES.values()})
        cmake = re.search(r"cmake_minimum_required\(VERSION ([\d.]+)\)", (ROOT / "CMakeLists.txt").read_text()).group(1)
        self.assertEqual(rows.get("CMake"), cmake)


if __name__ == "__main__":
    unittest.main(verbosity=2)
