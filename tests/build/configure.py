"""A build of this tree in a temporary folder, with an environment of its own."""

import json
import os
import pathlib
import shlex
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
# What changes a build, besides the arguments.
OUR_ENVIRONMENT = ("CXX", "CC", "CXXFLAGS", "CFLAGS", "CPPFLAGS", "LDFLAGS", "CMAKE_CXX_COMPILER_LAUNCHER",
                   "CMAKE_BUILD_TYPE", "CMAKE_GENERATOR", "CCACHE_BASEDIR", "CCACHE_NOHASHDIR")
WARNINGS_ARE_ERRORS = "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"


class Build:
    """Configured when constructed; the folder is removed with the object."""

    def __init__(self, *arguments, environment=None):
        self._folder = tempfile.TemporaryDirectory(prefix="zav-build-")
        self.folder = pathlib.Path(self._folder.name)
        self._environment = {name: value for name, value in os.environ.items() if name not in OUR_ENVIRONMENT}
        self._environment.update(environment or {})
        self._run("cmake", "-S", str(ROOT), "-B", str(self.folder), "-G", "Ninja", *arguments, cwd=ROOT)

    def __del__(self):
        self._folder.cleanup()

    def _run(self, *command, cwd=None):
        done = subprocess.run(command, cwd=cwd or self.folder, env=self._environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise AssertionError(f"{shlex.join(command)}\n{done.stdout[-4000:]}")
        return done.stdout

    def compile(self, *targets):
        self._run("ninja", "-j2", *targets)

    def cache(self, name):
        for line in (self.folder / "CMakeCache.txt").read_text().splitlines():
            if line.startswith(name + ":"):
                return line.partition("=")[2]
        return None

    def launcher(self, library):
        """The program that starts the compiler, which may be the compiler itself."""
        return shlex.split(self._run("ninja", "-t", "commands", library))[0]

    def labels(self):
        """Of all tests."""
        tests = json.loads(self._run("ctest", "--show-only=json-v1"))["tests"]
        return {label for test in tests for item in test["properties"] if item["name"] == "LABELS"
                for label in item["value"]}

    def command(self, source):
        """The words of the command that compiles a source of the tree."""
        for entry in self._commands():
            if entry["file"] == str(ROOT / source):
                return shlex.split(entry["command"])
        return None

    def parts(self):
        """The tree's folders that are compiled. Generated sources are in none of them."""
        files = (pathlib.Path(entry["file"]) for entry in self._commands())
        return {file.relative_to(ROOT).parts[0] for file in files if file.is_relative_to(ROOT)}

    def _commands(self):
        return json.loads((self.folder / "compile_commands.json").read_text())
