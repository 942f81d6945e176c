"""Reading a provisioning file: the time and the memory that a pass takes before its first job."""

import json
import subprocess
import time

import published
from work import Work, at_most

COUNTS = (1000, 100000)
AFTER_SECONDS = 5
PASSES = 3


def cpu_time(context, name, file):
    """Processor time of one round, in ms."""
    done = subprocess.run([context.program(name), "--benchmark_format=json", "--benchmark_min_time=0.1", file],
                          capture_output=True, text=True, check=True)
    (row,) = json.loads(done.stdout)["benchmarks"]
    assert row["time_unit"] == "us"
    return row["cpu_time"] / 1000


class Reading(Work):
    unit = "ms CPU"
    goal = at_most(1.1)
    samples = 9
    floor_name = "libxml2's parser, a map of attributes for each element, freeing both"

    def __init__(self, count):
        self.name = f"load, verify, collectJobs of {count:,} params"
        self.count = count

    def prepare(self, context):
        self.context = context
        self.file = context.folder / f"reading-{self.count}.xml"
        self.file.write_text(published.settings(self.count), encoding="utf-8")

    def ours(self):
        return cpu_time(self.context, "bench_files", self.file)

    def floor(self):
        return cpu_time(self.context, "floor_parse", self.file)

    def close(self):
        self.file.unlink(missing_ok=True)


class PassMemory(Work):
    """The daemon's memory while it reads 100,000 params, and afterwards. None of the jobs runs, so that a pass is short."""

    unit = "MB"
    samples = 7

    def prepare(self, context):
        self.count = 10000 if context.quick else COUNTS[-1]
        self.after = 0.5 if context.quick else AFTER_SECONDS
        self.phone = None
        self.phone = context.phone("--no-boot-pass").settle()
        self.pid = self.phone.pid()
        self.idle = self.dirty()
        self.size = self.publish()

    def publish(self):
        text = published.settings(self.count, version="1.05")
        self.phone.publish("provisioning.xml", text)
        return len(text) / 1e6

    def dirty(self):
        return self.amount("smaps_rollup", "Private_Dirty")

    def amount(self, file, name):
        return int(self.phone.run("grep", f"^{name}:", f"/proc/{self.pid}/{file}").split()[1]) * 1024 / 1e6

    def read_file(self):
        self.phone.run("zavctl", "provision", "--wait")
        lines = self.phone.run("tail", "-n", "40", "/run/phone/daemon.log")
        assert "is not valid for provisioning version: 1.05" in lines, lines

    def close(self):
        if self.phone:
            self.phone.close()


class PeakMemory(PassMemory):
    name = "peak memory of reading 100,000 params"
    goal = at_most(12)
    floor_name = "the size of the file"

    def ours(self):
        self.phone.run("sh", "-c", f"echo 5 >/proc/{self.pid}/clear_refs")  # forgets earlier peaks
        self.read_file()
        return self.amount("status", "VmHWM")

    def floor(self):
        return self.size


class MemoryAfterwards(PassMemory):
    name = f"dirty memory {AFTER_SECONDS} s after reading 100,000 params"
    goal = at_most(1.5)
    floor_name = "the same daemon before its first pass"

    def prepare(self, context):
        super().prepare(context)
        for _ in range(PASSES):
            self.read_file()
        time.sleep(self.after)  # what is measured, not a wait for something

    def ours(self):
        return self.dirty()

    def floor(self):
        return self.idle


WORKS = [*(Reading(count) for count in COUNTS), PeakMemory(), MemoryAfterwards()]
