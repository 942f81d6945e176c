"""The stage in which openssl decrypts a file, and faults of openssl in any stage.

The daemon finds a program of the suite's own in openssl's place. It writes half of the result, waits at a gate, behaves as
a file says, and otherwise becomes the real one.
"""

import errno
import os
import shutil
import signal

import phone
from bus_faults import Fault
from files import direct
from raw_server import ok
from stages import Stage

FOLDER = "/tmp/in-place-of-openssl"
GATE, MODE, PID = f"{FOLDER}/gate", f"{FOLDER}/mode", f"{FOLDER}/pid"
PROGRAM = """#!/bin/sh
echo $$ >{pid}.new && mv {pid}.new {pid}
if [ -p {gate} ]; then
    printf half >"$7"
    read -r _ <{gate}
fi
if [ -e {mode} ]; then . {mode}; fi
exec {real} "$@"
"""
MODES = {"hanging": "exec /bin/sleep 1000\n", "killed": "kill -9 $$\n", "failing": "exit 1\n"}


def install(case):
    """The daemon that starts next finds the program."""
    real = shutil.which("openssl")
    shutil.rmtree(FOLDER, ignore_errors=True)
    os.makedirs(FOLDER)
    with open(f"{FOLDER}/openssl", "w", encoding="ascii") as file:
        file.write(PROGRAM.format(pid=PID, gate=GATE, mode=MODE, real=real))
    os.chmod(f"{FOLDER}/openssl", 0o755)
    case.environment = {**case.environment, "PATH": f"{FOLDER}:{os.environ['PATH']}"}
    type(case).usable = False


def running():
    """The process id of the program that waits, or None."""
    try:
        with open(PID, encoding="ascii") as file:
            pid = int(file.read())
        return pid if os.path.exists(f"/proc/{pid}") else None
    except FileNotFoundError:
        return None


def open_gate():
    """Lets processes that wait there go on, and later ones pass."""
    try:
        gate = os.open(GATE, os.O_WRONLY | os.O_NONBLOCK)
    except OSError as error:
        if error.errno not in (errno.ENXIO, errno.ENOENT):  # it was killed, or the gate was opened before
            raise
        gate = None
    if os.path.exists(GATE):
        os.remove(GATE)
    if gate is not None:
        os.close(gate)


class Decryption(Stage):
    """The moment at which openssl has written half of the encrypted initial file."""

    def reach(self, case):
        install(case)
        case.start_idle()
        text = direct(case.new_settings(20))
        secret = phone.encrypt(text)
        case.known |= {secret, text.encode()}
        case.configure(case.serve({"/provisioning.xml": ok(secret)}))
        case.log.mark()
        case.bus.mark()
        if os.path.exists(PID):
            os.remove(PID)
        os.mkfifo(GATE)
        case.request()
        phone.wait_until(lambda: any(path.endswith(".tmp") and os.path.getsize(path) for path in case.files()),
                         "openssl in mid-file")

    def go_on(self, case):
        super().go_on(case)
        open_gate()


class EndWhileDecrypting(Decryption):
    """SIGTERM comes while openssl works and never gets done. No clock is moved: the end has ten seconds."""

    def go_on(self, case):
        case.took, case.status = case.stop_daemon()
        case.figures["stop"] = case.took

    def over(self, case):
        return True

    def wait_over(self, case):
        case.hold_ended_in_time()
        open_gate()
        case.configure(case.good)
        case.launch()
        case.settle_quietly()
        case.pid_before = phone.service_pid()


class Openssl(Fault):
    """openssl does something else from now on. In mid-file it is killed, or stopped for good."""

    def __init__(self, way):
        self.way = way

    def prepare(self, case):
        install(case)

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        with open(f"{MODE}.new", "w", encoding="ascii") as file:
            file.write(MODES[self.way])
        os.rename(f"{MODE}.new", MODE)
        if os.path.exists(GATE) and (pid := running()):
            os.kill(pid, signal.SIGKILL if self.way == "killed" else signal.SIGSTOP)

    def mend(self, case):
        os.remove(MODE)
