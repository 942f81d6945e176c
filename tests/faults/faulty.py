"""The other side of faulty.cpp: the library that makes one process fail."""

import os
import struct

import phone

LIBRARY = f"{os.environ['LAB_BUILD']}/tests/faulty.so"
CONTROL = f"{phone.HOME}/faulty"
DISK = f"{phone.HOME}/synced"
FIELDS = {"allocations": 0, "fail at": 1, "no threads": 2, "disk full": 3, "descriptors": 4}


class Control:
    """The other side of faulty.cpp."""

    environment = {"LAB_PRELOAD": LIBRARY, "FAULTY": CONTROL}

    def __init__(self):
        with open(CONTROL, "wb") as file:
            file.write(bytes(8 * len(FIELDS)))

    @staticmethod
    def put(field, value):
        with open(CONTROL, "r+b") as file:
            file.seek(8 * FIELDS[field])
            file.write(struct.pack("q", value))

    @staticmethod
    def get(field):
        with open(CONTROL, "rb") as file:
            file.seek(8 * FIELDS[field])
            return struct.unpack("q", file.read(8))[0]


def start_with(case, environment):
    """An idle daemon of its own with this environment."""
    case.environment = environment
    case.start_daemon()
    case.settle_quietly()
    case.measure()
    case.environment = {}


def with_environment(values, function):
    os.environ.update(values)
    try:
        function()
    finally:
        for name in values:
            os.environ.pop(name)
