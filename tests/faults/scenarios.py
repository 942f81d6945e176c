"""Which row is run by what: each scenario is a function that is handed the case."""

import bus_faults
import machine_faults
import phone
import process_faults
import random_faults
import server_faults
from stages import STAGES


def in_stage(fault, stage):
    """The fault strikes in the stage, lasts until the stage is over or its time is up, and is mended."""
    def run(case):
        fault.prepare(case)
        stage.reach(case)
        case.pid_before = None if case.daemon_ended() else phone.service_pid()
        fault.strike(case)
        try:
            stage.go_on(case)
            if fault.lasts:
                case.drive(lambda: stage.over(case))
        finally:
            fault.mend(case)
        stage.wait_over(case)

    return run


def fault_in_stage(row):
    """The fault of a row that strikes in the stage of the row; nothing for rows with a scenario of their own."""
    if row.what in ("broker", "property service") and row.fault in bus_faults.BROKER:
        return bus_faults.find(row.what, row.fault)
    if row.what == "daemon" and row.fault in process_faults.IN_STAGE:
        return process_faults.IN_STAGE[row.fault]()
    if (row.what, row.fault) == ("property service", "its disk full"):
        return process_faults.StoreFull()
    return machine_faults.in_stage(row.what, row.fault)


def find(row):
    if row.what == "server":
        return server_faults.find(row.fault, row.stage)
    if fault := fault_in_stage(row):
        return in_stage(fault, STAGES[row.stage]())
    if (row.what, row.fault) == ("daemon", "killed"):
        return random_faults.killed_in_stage(STAGES[row.stage]())
    if row.fault.startswith(("killed at", "power cut at")):
        return random_faults.find(row.what, row.fault)
    if row.fault.startswith("no memory at"):
        return process_faults.find(row.fault)
    return machine_faults.find(row.what, row.fault)
