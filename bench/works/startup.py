"""From the daemon's exec to its being ready."""

from work import Work, at_most


class Start(Work):
    name = "exec to 'ZAV initialized.'"
    unit = "ms"
    goal = at_most(1.1)
    samples = 21
    floor_name = "exec to four acknowledged subscriptions, same libraries"

    def prepare(self, context):
        self.phone = None
        self.phone = context.phone("--no-boot-pass", "--no-daemon")
        self.daemon, self.bare = (
            self.phone.start(context.program("bench_startup"), text, context.program(program))
            for text, program in (("ZAV initialized.", "zavd"), ("ready\n", "floor_client")))

    def ours(self):
        return float(self.daemon.ask("")) / 1000

    def floor(self):
        return float(self.bare.ask("")) / 1000

    def close(self):
        if self.phone:
            self.phone.close()


WORKS = [Start()]
