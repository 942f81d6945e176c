"""What works share: the build, a temporary folder, brokers, phones of the lab, and the CPUs."""

import contextlib
import json
import os
import pathlib
import select
import shutil
import socket
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
CATALOGUE = ROOT / "services/property-service/catalogue.json"
DEADLINE = 60


def wait_until(condition, what, deadline=DEADLINE):
    end = time.monotonic() + deadline
    while not (answer := condition()):
        if time.monotonic() > end:
            raise TimeoutError(f"not within {deadline} s: {what}")
        time.sleep(0.002)
    return answer


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Service:
    """A program that runs until it is stopped; its output goes to a file."""

    def __init__(self, argv, log):
        with open(log, "ab") as output:
            self._process = subprocess.Popen([str(word) for word in argv], stdin=subprocess.DEVNULL, stdout=output,
                                             stderr=output)
        self.pid = self._process.pid

    def stop(self):
        self._process.terminate()
        end(self._process)


def end(process):
    try:
        process.wait(20)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


class Program:
    """A program that answers each line on its input with one on its output."""

    def __init__(self, argv, **options):
        self._process = subprocess.Popen([str(word) for word in argv], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True, **options)
        self.pid = self._process.pid

    def read(self, deadline=DEADLINE):
        if not select.select([self._process.stdout], [], [], deadline)[0]:
            raise TimeoutError(f"no answer within {deadline} s: {self._process.args}")
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(f"{self._process.args[0]} ended with status {self._process.wait()}")
        return line.rstrip("\n")

    def ask(self, line, deadline=DEADLINE):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()
        return self.read(deadline)

    def stop(self):
        self._process.stdin.close()
        self._process.terminate()
        end(self._process)
        self._process.stdout.close()


class PhoneProgram:
    """The same inside a phone. `pid` is the number inside."""

    def __init__(self, phone, argv):
        self._phone = phone
        self.pid = phone.agent("start", argv=[str(word) for word in argv])["pid"]

    def ask(self, line, deadline=DEADLINE):
        return self._phone.agent("ask", deadline, pid=self.pid, line=line)["line"]

    def stop(self):
        self._phone.agent("stop", pid=self.pid)


class Phone:
    """A phone of the lab. Its server publishes `www`; what is in `www` can be changed while it runs."""

    def __init__(self, context, options):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="phone-", dir=context.folder))
        self.www = self.folder / "www"
        self.www.mkdir()
        self._errors = open(self.folder / "lab.log", "w", encoding="utf-8")
        self._program = Program([ROOT / "lab/phone", "--build", context.build, "--bind", context.folder, "--www",
                                 self.www, *options, "--", "/usr/bin/python3", "-B", ROOT / "bench/agent.py"],
                                stderr=self._errors)

    def wait_ready(self):
        """Returns once the phone's services run."""
        if not hasattr(self, "_ready"):
            try:
                self._ready = json.loads(self._program.read())
            except Exception as error:
                raise RuntimeError(f"{error}\n{(self.folder / 'lab.log').read_text()}") from error
        return self

    def agent(self, action, deadline=DEADLINE, **request):
        self.wait_ready()
        answer = json.loads(self._program.ask(json.dumps({"action": action, **request}), deadline + 10))
        if "failed" in answer:
            raise RuntimeError(f"in the phone, {action}: {answer['failed']}")
        return answer

    def run(self, *argv, text=None, deadline=DEADLINE):
        """Runs a command to its end and returns its output. Raises if it fails."""
        done = self.agent("run", deadline, argv=[str(word) for word in argv], input=text, timeout=deadline)
        if done["status"] != 0:
            raise RuntimeError(f"{argv} ended with {done['status']}: {done['out']}{done['err']}")
        return done["out"]

    def start(self, *argv):
        return PhoneProgram(self, argv)

    def service(self, action, name):
        """lab/service start, stop, kill, restart, ready ..."""
        return self.run(ROOT / "lab/service", action, name, deadline=210)

    def pid(self, name="daemon"):
        """Of broker, properties, server or daemon, as seen inside."""
        return int(self.run("cat", f"/run/phone/{name}.pid"))

    def log(self, name="daemon"):
        return self.run("cat", f"/run/phone/{name}.log")

    def set(self, key, value):
        self.run("zavctl", "set", key, value)

    def publish(self, name, text):
        """Makes a file on the server."""
        new = self.www / f".{name}.new"
        new.write_text(text, encoding="utf-8")
        new.replace(self.www / name)

    def settle(self):
        """Returns once the pass after boot has ended and the daemon accepts requests."""
        self.service("ready", "daemon")
        return self

    def pin(self, cpu):
        """Pins the phone's services, and what is started in it later, to one CPU."""
        for name in ("broker", "properties", "server", "daemon"):
            self.agent("affinity", pid=self.pid(name), cpus=[cpu])
        self.agent("affinity", pid=0, cpus=[cpu])

    def close(self):
        self._program.stop()
        self._errors.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class Context:
    """`quick`: works may use smaller sizes, so that a run takes seconds; its figures mean nothing."""

    def __init__(self, build, quick=False):
        self.build = pathlib.Path(build)
        self.quick = quick
        self._stack = contextlib.ExitStack()
        self.folder = pathlib.Path(self._stack.enter_context(tempfile.TemporaryDirectory(prefix="zav-bench-")))
        self._settled = None
        self._all_cpus = sorted(os.sched_getaffinity(0))

    def program(self, name):
        """The path of a program of the build: zavd, prop-service, zavctl, bench_..., floor_..."""
        path = self.build / "bin" / name
        if not path.exists():
            raise FileNotFoundError(f"{path} is not built")
        return path

    @contextlib.contextmanager
    def pin(self, cpu=0):
        """What is started inside runs on one CPU: the `cpu`-th of those that this process may use."""
        before = os.sched_getaffinity(0)
        os.sched_setaffinity(0, {self.cpu(cpu)})
        try:
            yield
        finally:
            os.sched_setaffinity(0, before)

    def cpu(self, index):
        return self._all_cpus[index % len(self._all_cpus)]

    def phone(self, *options):
        """A phone of its own, with options of lab/phone; the caller closes it. Its clock skips the 90 s in which the
        network settles, and therefore wakes the daemon now and then."""
        return Phone(self, options).wait_ready()

    def start_settled_phone(self):
        """Starts what settled_phone() returns, without waiting for it."""
        if self._settled is None:
            self._settled = Phone(self, [] if self.quick else ["--real-time"])
            self._stack.callback(self._settled.close)

    def settled_phone(self):
        """The phone that all works share, on the machine's own clock, with no pass under way."""
        self.start_settled_phone()
        return self._settled.settle()

    def start(self, *argv, **options):
        """Starts a program that answers lines; the caller stops it."""
        return Program(argv, **options)

    def broker(self, settings="set_tcp_nodelay true\nmax_queued_messages 0\n"):
        """A private broker, (service, port); the caller stops it."""
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        configuration = self.folder / f"broker-{port}.conf"
        configuration.write_text(f"{'user root' if os.getuid() == 0 else ''}\nlistener {port} 127.0.0.1\n"
                                 f"allow_anonymous true\nlog_dest none\n{settings}", encoding="utf-8")
        service = Service(["/usr/sbin/mosquitto", "-c", configuration], self.folder / f"broker-{port}.log")
        wait_until(lambda: listens(port), "the broker listens")
        return service, port

    def property_service(self, port, folder, catalogue=CATALOGUE):
        """The property service on this broker, with its store in the folder; the caller stops it."""
        folder = pathlib.Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        return Service([self.program("prop-service"), "--host", "127.0.0.1", "--port", port, "--store",
                        folder / "properties.db", "--catalogue", catalogue], folder / "log")

    def wait_online(self, port):
        """Returns once the property service on this broker serves requests."""
        subprocess.run(["mosquitto_sub", "-V", "5", "-p", str(port), "-t", "prop-service/status", "-F", "%p", "-C", "1"],
                       check=True, capture_output=True, timeout=DEADLINE)

    def close(self):
        self._stack.close()
