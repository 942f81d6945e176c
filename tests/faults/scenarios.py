"""Which row is run by what: each scenario is a function that is handed the case."""

import bus_faults
import phone
import server_faults
from stages import STAGES


def in_stage(fault, stage):
    """The fault strikes in the stage, lasts until the stage is over or its time is up, and is mended."""
    def run(case):
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


def find(row):
    if row.what in ("broker", "property service"):
        return in_stage(bus_faults.find(row.what, row.fault), STAGES[row.stage]())
    if row.what == "server":
        return server_faults.find(row.fault, row.stage)
    raise KeyError(row.name)
