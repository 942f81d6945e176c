"""What holds after each step of a life."""

import os

import faults
import phone

LOCK, STATE = "State.Provisioning.LockUI", "State.Provisioning"
BOOTED, TRIGGER, CODE = "State.Provisioning.OnBootUp", "State.FirmwareUpdate.TriggerAuto", "State.Provisioning.HttpErrorCode"
PREFIXES = ("Telephony.Accounts.0.", "PhoneUI.Expansion.")
FOLDERS = ("/config/swupdate", "/custom/certs/_storage", "/var/volatile/contacts", "/var/volatile/provisioning")
LATER_THREADS = 2


def values(life):
    return {key: value for prefix in PREFIXES for key, value in life.bus.list(prefix).items()}


def that(condition, what, life):
    if not condition:
        raise AssertionError(f"{what}\n{life.story()}")


def standing(life):
    """No pass is under way and the bus works; other things may be broken."""
    state = life.bus.list("State.")
    that(state[LOCK] == "0", f"the user interface is locked: {state[LOCK]}", life)
    that(state[STATE] == life.result, f"the result is {state[STATE]!r}, the last pass left {life.result!r}", life)
    wrong = life.model.wrong(values(life))
    that(not wrong, f"settings that nobody wrote (found, expected): {wrong}", life)
    that(not partial(), f"partial files: {partial()}", life)
    asked = life.asked_before + life.asked()
    that(life.timer.least <= asked <= life.timer.most,
         f"the timer asked {asked} times, expected {life.timer.least} to {life.timer.most}", life)


def partial():
    return [f"{top}/{name}" for folder in FOLDERS for top, _, names in os.walk(folder) for name in names
            if name.startswith(".") or name.endswith(".part")]


def healthy(life):
    """After the pass that nothing disturbed."""
    state = life.bus.list("State.")
    that(state[CODE] == "200", f"the HTTP code is {state[CODE]}", life)
    that("request" not in state[TRIGGER], f"the trigger is {state[TRIGGER]!r}", life)
    if life.booting:
        life.skip(1)  # it looks whether its pass has ended
        life.wait_helped(lambda: life.bus.get(BOOTED) == "done", "the pass after boot done")
        life.booting = False
    for path, wanted in life.content.files.items():
        with open(path, "rb") as file:
            that(file.read() == wanted, f"{path} is not the file that the server has", life)
    flat(life)


def figures(pid):
    descriptors = len(os.listdir(f"/proc/{pid}/fd"))
    threads = len(os.listdir(f"/proc/{pid}/task"))
    return descriptors, threads, faults.dirty(pid)


def flat(life):
    """Descriptors, threads and memory are those after the daemon's first good pass. Two threads may begin later: the timer's,
    if its period could not be read at the start, and that of the writes that a pass could not do at its end."""
    pid = phone.service_pid()
    now = figures(pid)
    if life.idle is None or life.idle[0] != pid:
        life.idle = (pid, now)
        return
    first = life.idle[1]
    limit = (first[0] + 1, first[1] + LATER_THREADS, first[2] * 3 // 2 + faults.SPARE)
    if faults.is_sanitized(pid):
        limit = (*limit[:2], 1 << 40)
    life.wait(lambda: all(one <= most for one, most in zip(figures(pid), limit)),
              f"descriptors, threads and KiB back at {limit}; they are {figures(pid)}, first {first}")
