"""Round trips of property reads and writes, everything on one CPU."""

from work import Work, at_most

LIMIT_MS = 5


class Bench:
    """The property client with its service, and the bare client with the bare responder, on brokers of their own."""

    def __init__(self, context, settings):
        self.started = []
        with context.pin():
            _, port = self.keep(context.broker(settings) if settings is not None else context.broker())
            self.keep(context.property_service(port, context.folder / f"round-trips-{port}"))
            self.client = self.keep(context.start(context.program("bench_roundtrip"), port))
            _, port = self.keep(context.broker())
            self.keep(context.start(context.program("floor_responder"), port)).read()
            self.bare = self.keep(context.start(context.program("floor_roundtrip"), port))

    def keep(self, started):
        self.started.append(started[0] if isinstance(started, tuple) else started)
        return started

    def close(self):
        for program in reversed(self.started):
            program.stop()


class RoundTrip(Work):
    unit = "us"
    samples = 15
    samples_of_a_start = 3  # how long a call takes depends by 4 % on where processes lie in memory

    def __init__(self, operation, broker, goal, settings=None):
        self.name = f"{operation}, {broker}"
        self.operation = operation
        self.settings = settings
        self.goal = at_most(goal)
        self.floor_name = ("bare client on one thread; a responder that echoes" +
                           (" and publishes the change" if operation == "set" else "") + "; broker with TCP_NODELAY")
        self.bench = None

    def prepare(self, context):
        self.calls = 200 if context.quick else 2000
        self.context = context
        self.left = 0

    def start(self):
        self.close()
        self.bench = Bench(self.context, self.settings)
        self.left = self.samples_of_a_start

    def median(self, program):
        return float(program.ask(f"{self.operation} {self.calls}").split()[0])

    def ours(self):
        if self.left == 0:
            self.start()
        self.left -= 1
        return self.median(self.bench.client)

    def floor(self):
        return self.median(self.bench.bare)

    def close(self):
        if self.bench:
            self.bench.close()
        self.bench = None


class Slowest(RoundTrip):
    """The slowest of 10,000 calls, for which the floor is the limit."""

    unit = "ms"
    samples = 7

    def __init__(self, operation):
        super().__init__(operation, "slowest of 10,000, default broker", 1, "")
        self.floor_name = f"the limit, {LIMIT_MS} ms"
        self.slowest = 0.0

    def prepare(self, context):
        super().prepare(context)
        self.calls = 1000 if context.quick else 10000
        self.start()

    def largest(self, program):
        return float(program.ask(f"{self.operation} {self.calls}").split()[2]) / 1000

    def ours(self):
        slowest = self.largest(self.bench.client)
        self.slowest = max(self.slowest, slowest)
        return slowest

    def floor(self):
        return LIMIT_MS

    def notes(self):
        return [f"slowest of all calls {self.slowest:.2f} ms, of {self.calls:,} of the bare client's "
                f"{self.largest(self.bench.bare):.2f} ms"]


PINNED = "pinned"
DEFAULTS = "broker with defaults"
WORKS = [RoundTrip("get", PINNED, 1.15), RoundTrip("set", PINNED, 1.15),
         RoundTrip("get", DEFAULTS, 1.2, ""), RoundTrip("set", DEFAULTS, 1.2, ""),
         Slowest("get"), Slowest("set")]
