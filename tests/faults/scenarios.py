"""Which row is run by what: each scenario is a function that is handed the case."""

import contextlib

import bus_faults
import machine_faults
import phone
import process_faults
import random_faults
import server_faults
from decryption import MODES, Decryption, EndWhileDecrypting, Openssl
from stages import STAGES

ALL_STAGES = {**STAGES, "decryption": Decryption, "shutdown in decryption": EndWhileDecrypting}


def in_stage(fault, stage):
    """The fault strikes in the stage, lasts until the stage is over or its time is up, and is mended."""
    def run(case):
        fault.prepare(case)
        stage.reach(case)
        case.pid_before = None if case.daemon_ended() else phone.service_pid()
        meets = stage.begins and fault.brief  # over at once, it would be over before the daemon begins
        if meets:
            stage.go_on(case)
        fault.strike(case)
        try:
            if not meets:
                stage.go_on(case)
            if fault.lasts:
                case.drive(lambda: stage.over(case))
            elif fault.seconds:
                with contextlib.suppress(phone.Late):
                    phone.wait_until(lambda: stage.over(case), "the stage's end", fault.seconds)
        finally:
            case.log_in_fault = case.log.lines()
            fault.mend(case)
        stage.wait_over(case)

    return run


def fault_in_stage(row):
    """The fault of a row that strikes in the stage of the row; nothing for rows with a scenario of their own."""
    if row.what in ("broker", "property service") and row.fault in bus_faults.BROKER:
        return bus_faults.find(row.what, row.fault)
    if (row.what, row.fault, row.stage) == ("daemon", "no descriptors", "start-up"):
        return process_faults.FewDescriptors()
    if row.what == "daemon" and row.fault in process_faults.IN_STAGE:
        return process_faults.IN_STAGE[row.fault]()
    if (row.what, row.fault) == ("property service", "its disk full"):
        return process_faults.StoreFull()
    if row.fault == "no descriptors":
        return process_faults.NoDescriptors(bus_faults.NAMES[row.what])
    if row.what == "openssl" and row.stage in ALL_STAGES and row.fault in MODES:
        return Openssl(row.fault)
    return machine_faults.in_stage(row.what, row.fault)


def find(row):
    if row.what == "server":
        return server_faults.find(row.fault, row.stage)
    if fault := fault_in_stage(row):
        return in_stage(fault, ALL_STAGES[row.stage]())
    if (row.what, row.fault) == ("daemon", "killed"):
        return random_faults.killed_in_stage(ALL_STAGES[row.stage]())
    if row.fault.startswith(("killed at", "power cut at")):
        return random_faults.find(row.what, row.fault)
    if row.fault.startswith("no memory at"):
        return process_faults.find(row.fault)
    return machine_faults.find(row.what, row.fault)
