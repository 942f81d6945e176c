"""A container with a booted systemd, in which the packages are installed as on a phone.

Its tree is made once, with mmdebstrap, and cached in build/. Each container has an overlay over it that ends with it, and
a network of its own. Commands reach it through its namespaces, because it is registered with no service manager.
"""

import hashlib
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
CACHE = ROOT / "build" / "packages-test"
LIST = pathlib.Path(__file__).with_name("container.txt")
DEADLINE = 60
CGROUPS = ("/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified", "/sys/fs/cgroup")


class Unavailable(Exception):
    """This machine cannot run containers."""


class TreeError(Exception):
    """The container's tree cannot be made."""


def wait_until(condition, what, deadline=DEADLINE):
    """Repeats the condition until it holds and returns its value."""
    end = time.monotonic() + deadline
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what() if callable(what) else what}")
        time.sleep(0.05)
    return value


def require_namespaces():
    """Raises Unavailable with the reason if containers cannot run here."""
    if os.geteuid() != 0:
        raise Unavailable("only root can boot a container")
    for program in ("systemd-nspawn", "mmdebstrap", "nsenter"):
        if shutil.which(program) is None:
            raise Unavailable(f"{program} is missing; packaging/packages-test.txt names its package")
    tried = subprocess.run(["unshare", "--mount", "--pid", "--net", "--ipc", "--uts", "--cgroup", "--fork", "mount", "-t",
                            "tmpfs", "none", "/mnt"], capture_output=True, text=True)
    if tried.returncode != 0:
        raise Unavailable("this machine allows no namespaces: " + tried.stderr.strip())


def release():
    with open("/etc/os-release", encoding="utf-8") as file:
        return dict(line.rstrip().split("=", 1) for line in file if "=" in line)["VERSION_CODENAME"]


def sources():
    """The machine's own package sources of its release, in apt's one-line form."""
    text = subprocess.run(["apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE) $(COMPONENT)",
                           "Created-By: Packages"], capture_output=True, text=True, check=True).stdout
    lines = {f"deb {line}" for line in text.splitlines() if line.split()[1].split("-")[0] == release()}
    if not lines:
        raise TreeError(f"apt knows no source of {release()}: is the package list updated?")
    return sorted(lines)


def tree():
    """The path of the tree; made if there is none for the present list of packages."""
    listed = [line.split("#")[0].strip() for line in LIST.read_text(encoding="utf-8").splitlines()]
    packages = ",".join(package for package in listed if package)
    path = CACHE / ("tree-" + hashlib.sha256(f"{release()} {packages}".encode()).hexdigest()[:12])
    if path.exists():
        return path
    CACHE.mkdir(parents=True, exist_ok=True)
    for old in CACHE.glob("tree-*"):
        shutil.rmtree(old)
    print("Making the container's tree, once ...", flush=True)
    made = pathlib.Path(tempfile.mkdtemp(prefix="unfinished-", dir=CACHE))
    try:
        # Readable for the daemons' users, unlike a temporary folder.
        made.chmod(0o755)
        done = subprocess.run(["mmdebstrap", "--variant=minbase", f"--include={packages}", release(), str(made), "-"],
                              input="\n".join(sources()) + "\n", capture_output=True, text=True)
        if done.returncode != 0:
            raise TreeError("cannot make the container's tree, for which Debian packages are downloaded once:\n" +
                            "\n".join(done.stderr.splitlines()[-15:]))
        made.rename(path)
    finally:
        shutil.rmtree(made, ignore_errors=True)
    return path


class Container:
    """One boot. `folder` is shown inside, read-only, as /packages."""

    def __init__(self, name, folder):
        self.name = f"zav-{name}-{os.getpid()}"
        self.log = CACHE / f"{name}.console"
        self.leader = None
        self.groups = []
        command = ["systemd-nspawn", "--quiet", f"--directory={tree()}", "--volatile=overlay", "--register=no",
                   "--private-network", f"--machine={self.name}", f"--bind-ro={folder}:/packages", "--settings=no",
                   "--link-journal=no", "--resolv-conf=off", "--timezone=off", "--boot"]
        if not os.path.exists("/run/systemd/system"):
            # There is no service manager that could give it a scope.
            command.insert(1, "--keep-unit")
            self.groups = [f"{base}/{self.name}" for base in CGROUPS if os.access(f"{base}/cgroup.procs", os.W_OK)]
        for group in self.groups:
            os.mkdir(group)
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                                            preexec_fn=self._join_groups)
        try:
            wait_until(self._booted, self._console)
        except BaseException:
            self.stop()
            raise

    def _join_groups(self):
        for group in self.groups:
            with open(f"{group}/cgroup.procs", "w", encoding="ascii") as file:
                file.write(str(os.getpid()))

    def _console(self):
        return "boot of the container:\n" + self.log.read_text(encoding="utf-8", errors="replace")[-3000:]

    def _booted(self):
        if self.process.poll() is not None:
            raise AssertionError(self._console())
        children = []
        for task in pathlib.Path(f"/proc/{self.process.pid}/task").iterdir():
            children += (task / "children").read_text(encoding="ascii").split()
        if not children:
            return False
        self.leader = children[0]
        return self.run("systemctl", "is-system-running", check=False).strip() in ("running", "degraded")

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        for group in self.groups:
            for folder, _, _ in os.walk(group, topdown=False):
                os.rmdir(folder)

    def run(self, *command, check=True, namespaces="-a", timeout=180):
        """Runs a command inside as root; its standard output, followed by its errors if `check` is False."""
        done = subprocess.run(["nsenter", "-t", self.leader, namespaces, "--", *command], capture_output=True, text=True,
                              timeout=timeout, stdin=subprocess.DEVNULL,
                              env={"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C",
                                   "DEBIAN_FRONTEND": "noninteractive"})
        if not check:
            return done.stdout + done.stderr
        if done.returncode != 0:
            raise AssertionError(f"{shlex.join(command)}: {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def write(self, path, text, mode="644"):
        subprocess.run(["nsenter", "-t", self.leader, "-a", "--", "sh", "-c", 'mkdir -p "$(dirname "$1")" && cat >"$1" && '
                        'chmod "$2" "$1"', "sh", path, mode], input=text if isinstance(text, bytes) else text.encode(),
                       check=True, timeout=DEADLINE)

    def plug_in(self):
        """Gives it an interface eth0 with a carrier. The peer's name must not contain "eth"."""
        for words in ("link add eth0 type veth peer name uplink0", "address add 192.0.2.10/24 dev eth0",
                      "link set uplink0 up", "link set eth0 up"):
            self.run("ip", *words.split())

    # Units

    def show(self, unit, name):
        return self.run("systemctl", "show", unit, f"--property={name}", "--value").strip()

    def wait_active(self, unit, deadline=DEADLINE):
        wait_until(lambda: self.show(unit, "ActiveState") == "active",
                   lambda: f"{unit} active:\n{self.run('systemctl', 'status', '--no-pager', '-l', unit, check=False)}", deadline)

    def journal(self, unit):
        """The messages of a unit's programs and of systemd about it: (priority, text), oldest first."""
        text = self.run("journalctl", f"--unit={unit}", "--output=json", "--no-pager")
        entries = [json.loads(line) for line in text.splitlines()]
        return [(int(entry["PRIORITY"]), str(entry["MESSAGE"])) for entry in entries]

    def wait_journal(self, unit, text, count=1, deadline=DEADLINE):
        """Waits for `count` messages that contain the text; returns their priorities."""
        return wait_until(
            lambda: len(found := [level for level, message in self.journal(unit) if text in message]) >= count and found,
            lambda: f"{count} of {text!r} in:\n" + "\n".join(message for _, message in self.journal(unit)[-40:]), deadline)

    def override(self, unit, text):
        self.write(f"/etc/systemd/system/{unit}.d/test.conf", text)
        self.run("systemctl", "daemon-reload")

    def restore(self, unit):
        self.run("rm", "-rf", f"/etc/systemd/system/{unit}.d")
        self.run("systemctl", "daemon-reload")
