"""The property service under load, with few and many keys, and its start with a large store."""

import contextlib
import json
import sqlite3

from work import Work, at_least, at_most

CLIENTS = 64
FEW, MANY = 10_000, 100_000


def key(index):
    return f"Bench{index // 10_000}.Entry.{index % 10_000}"


def write_catalogue(path, keys):
    entry = {"type": "text", "default": "", "description": "An entry of a large catalogue"}
    patterns = {f"Bench{group}.Entry.{{0-9999}}": entry for group in range(keys // 10_000)}
    path.write_text(json.dumps({"version": 1, "keys": patterns}), encoding="utf-8")
    return path


def checksum(name, value):
    """As the store's: see docs/property-store.md."""
    total = 0xcbf29ce484222325
    for byte in f"{name}\0{value}".encode():
        total = (total ^ byte) * 0x100000001b3 & 0xffffffffffffffff
    return total - (1 << 64) if total >> 63 else total


class Loads:
    """Services with few and with many keys and the bare responder, all on one CPU; shared by the works below."""

    def __init__(self):
        self.users = 0

    def open(self, context):
        self.users += 1
        if self.users > 1:
            return self
        self.started = []
        self.milliseconds = 50 if context.quick else 200
        with context.pin():
            self.loads = {keys: self.service(context, keys) for keys in (FEW, MANY)}
            broker, port = context.broker()
            responder = context.start(context.program("floor_responder"), port)
            responder.read()
            self.started += [broker, responder]
            self.loads["floor"] = self.load(context, port)
        return self

    def service(self, context, keys):
        broker, port = context.broker()
        folder = context.folder / f"load-{keys}"
        folder.mkdir(exist_ok=True)
        catalogue = write_catalogue(folder / "catalogue.json", keys)
        self.started += [broker, context.property_service(port, folder, catalogue)]
        context.wait_online(port)
        return self.load(context, port)

    def load(self, context, port):
        load = context.start(context.program("bench_load"), port, CLIENTS)
        self.started.append(load)
        return load

    def measure(self, which, topic):
        """Requests a second, median and 99th percentile in microseconds."""
        keys = which if isinstance(which, int) else FEW
        names = " ".join(key(index) for index in range(0, keys, max(1, keys // 640)))
        return [float(word) for word in self.loads[which].ask(f"{topic} {self.milliseconds} {names}").split()]

    def close(self):
        self.users -= 1
        if self.users == 0:
            for program in reversed(self.started):
                program.stop()


LOADS = Loads()


class LoadWork(Work):
    unit = "1/s"
    samples = 7

    def __init__(self, operation, keys):
        self.operation, self.keys = operation, keys
        self.name = f"{operation} by {CLIENTS} clients, {keys:,} keys"
        self.goal = at_least(0.8)
        self.floor_name = "a responder that echoes" + (" and publishes the change" if operation == "set" else "")
        self.loads = None

    def prepare(self, context):
        self.loads = LOADS.open(context)

    def ours(self):
        return self.loads.measure(self.keys, f"prop-service/{self.operation}")[0]

    def floor(self):
        return self.loads.measure("floor", f"echo/{self.operation}")[0]

    def close(self):
        if self.loads:
            self.loads.close()


class Tail(LoadWork):
    """The 99th percentile beside the median of the same requests."""

    unit = "us"

    def __init__(self, operation, keys):
        super().__init__(operation, keys)
        self.name = f"{operation}: 99 % of {CLIENTS} clients, {keys:,} keys"
        self.goal = at_most(3)
        self.floor_name = "the median of the same requests"

    def ours(self):
        _, self.median, slow = self.loads.measure(self.keys, f"prop-service/{self.operation}")
        return slow

    def floor(self):
        return self.median


class Flat(LoadWork):
    def __init__(self, operation):
        super().__init__(operation, MANY)
        self.name = f"{operation}, {MANY:,} keys beside {FEW:,}"
        self.goal = at_least(0.9)
        self.floor_name = f"the same with {FEW:,} keys"

    def floor(self):
        return self.loads.measure(FEW, f"prop-service/{self.operation}")[0]


class Start(Work):
    name = f"start of the property service, {MANY:,} stored keys"
    unit = "ms"
    goal = at_most(1.5)
    floor_name = "SQLite reading the table"

    def __init__(self):
        self.started = []

    def prepare(self, context):
        folder = context.folder / "start"
        folder.mkdir()
        broker, port = context.broker()
        self.started.append(broker)
        catalogue = write_catalogue(folder / "catalogue.json", MANY)
        store = folder / "properties.db"
        service = context.property_service(port, folder, catalogue)
        context.wait_online(port)
        service.stop()
        with contextlib.closing(sqlite3.connect(store)) as database, database:
            database.executemany("INSERT INTO property VALUES (?, ?, ?)", (
                (key(index), f"value {index}", checksum(key(index), f"value {index}")) for index in range(MANY)))
        self.probe = context.start(context.program("bench_start"), port)
        self.started.append(self.probe)
        self.service = (f"service {context.program('prop-service')} --host 127.0.0.1 --port {port} --store {store} "
                        f"--catalogue {catalogue}")
        self.table = f"program {context.program('floor_table')} {store}"
        self.ours()  # makes the backup that is due

    def ours(self):
        return float(self.probe.ask(self.service))

    def floor(self):
        return float(self.probe.ask(self.table))

    def close(self):
        for program in reversed(self.started):
            program.stop()


WORKS = [LoadWork("get", FEW), LoadWork("set", FEW), LoadWork("get", MANY), LoadWork("set", MANY), Tail("get", MANY),
         Tail("set", MANY), Flat("get"), Flat("set"), Start()]
