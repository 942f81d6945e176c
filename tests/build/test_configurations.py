"""Every way to configure this tree that people and distributions use: it configures, and what it changes compiles."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from configure import Build, ROOT, WARNINGS_ARE_ERRORS

RELEASE = "-DCMAKE_BUILD_TYPE=Release"
NOT_OPTIMISED = "-DCMAKE_CXX_FLAGS_RELEASE=-O0"
ONLY_PROGRAMS = "-DBUILD_TESTING=OFF"
NO_GOOGLETEST = "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"
PROGRAMS = {"prop-service", "zavctl", "zavd"}
PRODUCT = {"platform", "services", "src", "tools"}
# Small, and it calls what _FORTIFY_SOURCE replaces.
LIBRARY = "common"
SOURCE = "platform/common/src/Execute.cpp"
LOGGING_OBJECT = "src/CMakeFiles/zavcore.dir/Core/ProvisioningTimer.cpp.o"


def fortification(words):
    return [word for word in words if "_FORTIFY_SOURCE" in word]


def distribution_flags():
    def flags(name):
        environment = {**os.environ, "DEB_BUILD_MAINT_OPTIONS": "hardening=+all"}
        return subprocess.run(["dpkg-buildflags", "--get", name], cwd=ROOT, env=environment, capture_output=True,
                              text=True, check=True).stdout.strip()
    return {"CXXFLAGS": f"{flags('CXXFLAGS')} {flags('CPPFLAGS')}", "LDFLAGS": flags("LDFLAGS")}


class Parts(unittest.TestCase):
    def test_the_three_programs_alone(self):
        build = Build(RELEASE, NOT_OPTIMISED, WARNINGS_ARE_ERRORS, NO_GOOGLETEST, "-DZAV_TESTS=OFF", "-DZAV_BENCH=OFF",
                      "-DZAV_LAB=OFF")
        self.assertEqual(build.labels(), set())
        self.assertEqual(build.parts(), PRODUCT)
        build.compile()
        self.assertEqual(set(os.listdir(build.folder / "bin")), PROGRAMS)

    def test_build_testing_off_leaves_the_programs(self):
        build = Build("-DBUILD_TESTING=OFF", NO_GOOGLETEST)
        self.assertEqual(build.labels(), set())
        self.assertEqual(build.parts(), PRODUCT)

    def test_without_the_lab_there_are_no_system_tests(self):
        self.assertEqual(Build("-DZAV_LAB=OFF").labels(), {"architecture", "build", "flow", "once", "unit"})

    def test_everything_is_the_default(self):
        build = Build()
        self.assertEqual(build.labels(), {"architecture", "build", "flow", "once", "system", "unit"})
        self.assertEqual(build.parts(), PRODUCT | {"bench", "lab", "tests"})


class Mistakes(unittest.TestCase):
    """A configuration that cannot work says why."""

    def refusal(self, *arguments, **environment):
        with self.assertRaises(AssertionError) as refused:
            Build(ONLY_PROGRAMS, *arguments, environment=environment)
        return " ".join(str(refused.exception).split())

    def test_a_missing_library_is_named_with_its_package(self):
        self.assertIn("CLI11 2.0 or later is missing (Debian: libcli11-dev)",
                      self.refusal("-DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON"))
        self.assertIn("libmosquitto 2.0 or later is missing (Debian: libmosquitto-dev)",
                      self.refusal(PKG_CONFIG_LIBDIR="/nonexistent"))

    def test_a_missing_googletest_is_named_with_the_option_that_avoids_it(self):
        refusal = self.refusal("-DZAV_TESTS=ON", NO_GOOGLETEST)
        self.assertIn("GoogleTest is missing (Debian: libgtest-dev, libgmock-dev", refusal)
        self.assertIn("-DZAV_TESTS=OFF", refusal)

    def test_a_misspelt_library_is_an_error(self):
        for name in ("zav::comon", "comon"):
            with tempfile.NamedTemporaryFile("w", suffix=".cmake") as file:
                file.write(f"cmake_language(DEFER CALL target_link_libraries zavd PRIVATE {name})\n")
                file.flush()
                self.assertIn(name, self.refusal(f"-DCMAKE_PROJECT_zav_INCLUDE={file.name}"))


class Warnings(unittest.TestCase):
    def test_they_are_errors_in_presets_only(self):
        self.assertNotIn("-Werror", Build(ONLY_PROGRAMS).command(SOURCE))
        self.assertIn("-Werror", Build("--preset", "release", ONLY_PROGRAMS).command(SOURCE))


class Fortification(unittest.TestCase):
    def setting(self, *arguments, **environment):
        """What the compiler is told. The library must compile without a warning."""
        build = Build(ONLY_PROGRAMS, WARNINGS_ARE_ERRORS, *arguments, environment=environment)
        build.compile(LIBRARY)
        return fortification(build.command(SOURCE))

    def test_a_release_build_has_it(self):
        self.assertEqual(self.setting(RELEASE), ["-D_FORTIFY_SOURCE=2"])

    def test_the_builders_level_counts(self):
        self.assertEqual(self.setting(RELEASE, CXXFLAGS="-O2 -D_FORTIFY_SOURCE=3"), ["-D_FORTIFY_SOURCE=3"])

    def test_a_builder_may_switch_it_off(self):
        self.assertEqual(self.setting(RELEASE, CXXFLAGS="-U_FORTIFY_SOURCE"), ["-U_FORTIFY_SOURCE"])

    def test_code_that_is_not_optimised_has_none(self):
        self.assertEqual(self.setting(RELEASE, NOT_OPTIMISED), [])

    @unittest.skipUnless(shutil.which("dpkg-buildflags"), "not a Debian machine")
    def test_a_distributions_flags(self):
        flags = distribution_flags()
        expected = fortification(flags["CXXFLAGS"].split())
        self.assertTrue(expected)
        for build_type in ("None", "Release"):
            self.assertEqual(self.setting(f"-DCMAKE_BUILD_TYPE={build_type}", **flags), expected)


class LogLines(unittest.TestCase):
    """The paths of sources in log lines begin below src/."""

    def paths(self, **environment):
        build = Build(ONLY_PROGRAMS, "-DCMAKE_BUILD_TYPE=None", environment=environment)
        build.compile(LOGGING_OBJECT)
        return set(re.findall(rb"[^\0]*ProvisioningTimer\.cpp(?=\0)", (build.folder / LOGGING_OBJECT).read_bytes()))

    def test_by_default(self):
        self.assertIn(b"Core/ProvisioningTimer.cpp", self.paths())

    @unittest.skipUnless(shutil.which("dpkg-buildflags"), "not a Debian machine")
    def test_with_a_distributions_flags(self):
        flags = distribution_flags()
        self.assertIn("-ffile-prefix-map", flags["CXXFLAGS"])
        self.assertIn(b"Core/ProvisioningTimer.cpp", self.paths(**flags))


class Compilers(unittest.TestCase):
    def test_the_builders_compiler_is_used(self):
        for arguments in ((), ("--preset", "release")):
            build = Build(ONLY_PROGRAMS, *arguments, environment={"CXX": "clang++-14"})
            self.assertEqual(os.path.basename(build.cache("CMAKE_CXX_COMPILER")), "clang++-14")

    def test_the_second_compiler_has_no_warnings(self):
        build = Build(ONLY_PROGRAMS, WARNINGS_ARE_ERRORS, "-DCMAKE_CXX_COMPILER=clang++-14")
        build.compile(*PROGRAMS)


class CompilerCache(unittest.TestCase):
    @unittest.skipUnless(shutil.which("ccache"), "ccache is not installed")
    def test_it_is_used_where_installed(self):
        self.assertEqual(Build(ONLY_PROGRAMS).launcher(LIBRARY), shutil.which("ccache"))

    def test_the_builders_launcher_counts(self):
        none = Build(ONLY_PROGRAMS, "-DCMAKE_CXX_COMPILER_LAUNCHER=")
        self.assertEqual(none.launcher(LIBRARY), none.cache("CMAKE_CXX_COMPILER"))
        other = Build(ONLY_PROGRAMS, environment={"CMAKE_CXX_COMPILER_LAUNCHER": "/usr/bin/env"})
        self.assertEqual(other.launcher(LIBRARY), "/usr/bin/env")


if __name__ == "__main__":
    unittest.main(verbosity=2)
