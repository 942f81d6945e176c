"""Many phones on one machine: memory of daemon, property service and broker, and the time of all passes after boot.

The phones run on the machine's own clock, so their passes after boot begin 90 s after the daemons. Each daemon is stopped
in the meantime and goes on when its group does, so that the passes of a group begin together.
"""

import datetime
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

from context import CATALOGUE, ROOT, wait_until
from work import Work, at_most
from works.passes import file_of

GROUPS = [1, 10, 100, 300]
SETTLES = 90
PROGRAMS = ("mosquitto", "prop-service", "zavd")
DEFAULTS = {
    "NET.MAC.Address": "02:00:5E:10:00:01",
    "System.Provision.FactoryAuthUsername": "phone",
    "System.Provision.FactoryAuthPassword": "factory",
    "System.Provision.ProvisioningServer": "http://provisioning.test/",
}
BROKER = "user root\nlistener 1883 localhost\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 0\n"
SERVER = """user root; daemon off; master_process off; pid nginx.pid; error_log stderr;
events { worker_connections 16; }
http {
  access_log off;
  client_body_temp_path t1; proxy_temp_path t2; fastcgi_temp_path t3; uwsgi_temp_path t4; scgi_temp_path t5;
  server { listen 80; root FOLDER/www; }
}
"""
STAMP = re.compile(r"^(\S+) ZAV ")


def programs_below(pid):
    """(name, pid) of all processes that descend from this one. Those that end meanwhile are left out."""
    try:
        yield pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="ascii").strip(), pid
        for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
            for child in (task / "children").read_text(encoding="ascii").split():
                yield from programs_below(int(child))
    except (FileNotFoundError, ProcessLookupError):
        pass


def proportional(pid):
    """PSS in bytes: what is shared is divided among its users."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return 1024 * int(re.search(r"^Pss:\s+(\d+) kB", rollup, re.MULTILINE).group(1))


class SmallPhone:
    def __init__(self, folder, build):
        folder.mkdir()
        self.folder = folder
        self.process = subprocess.Popen(
            [ROOT / "lab/sandbox", "--net", "--bind", folder.parent, "--", ROOT / "bench/small-phone", folder, build],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=open(folder / "errors", "wb"))

    def is_ready(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"a phone ended: {(self.folder / 'errors').read_text()}")
        if not (self.folder / "ready").exists():
            return False
        return True

    def start_daemon(self):
        self.process.stdin.write(b"go\n")
        self.process.stdin.flush()

    def settles(self):
        """Whether the daemon waits for the network to settle."""
        if "for stabilization." not in self.log():
            return False
        self.pids = dict(one for one in programs_below(self.process.pid) if one[0] in PROGRAMS)
        return True

    def log(self):
        log = self.folder / "daemon.log"
        return log.read_text(encoding="utf-8", errors="replace") if log.exists() else ""

    def send(self, number):
        os.kill(self.pids["zavd"], number)

    def memory(self):
        return sum(proportional(pid) for pid in self.pids.values())

    def has_passed(self):
        log = self.log()
        if "Provisioning failed. " in log:
            raise RuntimeError(f"a pass failed:\n{log}")
        return "Provisioning succeeded. " in log

    def moment(self, text):
        for line in self.log().splitlines():
            if text in line:
                return datetime.datetime.fromisoformat(STAMP.match(line).group(1)).timestamp()
        raise RuntimeError(f"no line with {text!r}")

    def close(self):
        self.process.stdin.close()
        self.process.wait(30)


class Fleet:
    """Phones of all groups, and what was measured on them; shared by the works below."""

    def __init__(self, context):
        self.groups = GROUPS
        self.folder = context.folder / "phones"
        self.folder.mkdir()
        self.phones = []
        self.memory, self.seconds = {}, {}
        self.configure(context)
        try:
            self.boot()
            self.passes()
            self.weigh()
        finally:
            self.close()

    def configure(self, context):
        catalogue = json.loads(CATALOGUE.read_text(encoding="utf-8"))
        for key, value in DEFAULTS.items():
            catalogue["keys"][key]["default"] = value
        (self.folder / "catalogue.json").write_text(json.dumps(catalogue), encoding="utf-8")
        (self.folder / "broker.conf").write_text(BROKER, encoding="utf-8")
        (self.folder / "server.conf").write_text(SERVER.replace("FOLDER", str(self.folder)), encoding="utf-8")
        (self.folder / "key").write_text(os.urandom(32).hex() + "\n", encoding="ascii")
        (self.folder / "www").mkdir()
        subprocess.run(["openssl", "enc", "-aes-128-cbc", "-salt", "-pass", f"file:{self.folder}/key", "-out",
                        self.folder / "www/provisioning.xml"], input=file_of(10).encode(), check=True,
                       stderr=subprocess.DEVNULL)
        self.build = context.build

    def boot(self):
        starting = []
        for number in range(sum(self.groups)):
            starting.append(SmallPhone(self.folder / str(number), self.build))
            self.phones.append(starting[-1])
            wait_until(lambda: len(self.still(starting)) < 4, "phones start")
        wait_until(lambda: not self.still(starting), "phones start")
        began = time.monotonic()
        for phone in self.phones:
            phone.start_daemon()
        wait_until(lambda: all(phone.settles() for phone in self.phones), "daemons start")
        self.settled = time.monotonic() + SETTLES + 1
        # A broker gives up a daemon that is stopped for longer than its keep-alive allows.
        if self.settled - began > SETTLES + 60:
            raise RuntimeError("the machine is too busy: the daemons took more than a minute to start")
        time.sleep(max(0, began + SETTLES - 5 - time.monotonic()))
        for phone in self.phones:
            phone.send(signal.SIGSTOP)

    @staticmethod
    def still(starting):
        starting[:] = [phone for phone in starting if not phone.is_ready()]
        return starting

    def passes(self):
        time.sleep(max(0, self.settled - time.monotonic()))
        first = 0
        for size in self.groups:
            group = self.phones[first:first + size]
            first += size
            for phone in group:
                phone.send(signal.SIGCONT)
            wait_until(lambda: all(phone.has_passed() for phone in group), f"{size} passes after boot", 120)
            begin = min(phone.moment("Do provisioning on boot up") for phone in group)
            self.seconds[size] = max(phone.moment("Provisioning succeeded. ") for phone in group) - begin

    def weigh(self):
        time.sleep(1)
        for size in sorted(self.groups, reverse=True):
            while len(self.phones) > size:
                self.phones.pop().close()
            self.memory[size] = sum(phone.memory() for phone in self.phones)

    def close(self):
        while self.phones:
            self.phones.pop().close()
        shutil.rmtree(self.folder, ignore_errors=True)


FLEET = []  # one, once it has been tried


class Phones(Work):
    samples = 1
    is_quick = False
    curve_axis = "phones"
    goal = at_most(1)

    def prepare(self, context):
        if not FLEET:
            FLEET.append(None)
            FLEET[0] = Fleet(context)
        if FLEET[0] is None:
            raise RuntimeError("the phones could not be measured, see the work before")
        self.most = FLEET[0].groups[-1]

    def measured(self):
        raise NotImplementedError

    def ours(self):
        return self.measured()[self.most]

    def floor(self):
        return self.most * self.measured()[1]

    def curve(self):
        return [(size, value, size * self.measured()[1]) for size, value in sorted(self.measured().items())]


class Memory(Phones):
    name = "memory of 300 phones"
    unit = "MB"
    floor_name = "300 times that of one phone (PSS of daemon, property service and broker)"

    def measured(self):
        return {size: value / 1e6 for size, value in FLEET[0].memory.items()}

    def notes(self):
        return [f"{self.ours() / self.most:.2f} MB a phone, {self.measured()[1]:.2f} MB for one alone"]


class BootPasses(Phones):
    name = "passes after boot of 300 phones at once"
    unit = "s"
    floor_name = "300 times that of one phone"

    def measured(self):
        return FLEET[0].seconds


WORKS = [Memory(), BootPasses()]
