"""Passes, from the request on the bus to the result on the bus: the file is encrypted, the phone on one CPU."""

from work import Work, at_most


def file_of(settings):
    params = "".join(f'<param name="PhoneUI.Expansion.{i % 3}.Keys.{i % 20}.{("Label", "Type", "Value")[i // 60 % 3]}" '
                     f'value="value {i}"/>\n' for i in range(settings))
    return f'<provisioning version="1.1" productID="kd4v">\n<nvm>\n{params}</nvm>\n</provisioning>\n'


class Pass(Work):
    unit = "ms"
    needs_phone = True

    def __init__(self, settings, goal=1.3):
        self.settings = settings
        self.name = "pass of one setting: fixed cost" if settings == 1 else f"pass of {settings:,} settings"
        self.goal = at_most(goal)
        self.floor_name = f"GET + fsync + openssl by sh + parse + {settings:,} bare sets on the same service"
        self.samples = 31 if settings <= 10 else 9 if settings <= 1000 else 7
        self.started = []

    def prepare(self, context):
        settings = min(self.settings, 2000) if context.quick else self.settings
        phone = context.settled_phone()
        phone.pin(context.cpu(0))
        phone.set("System.Provision.ProvisioningServer", "http://provisioning.test/")
        name = f"pass-{settings}.xml"
        phone.publish(name, file_of(settings))
        phone.run("openssl", "enc", "-aes-128-cbc", "-salt", "-pass", "file:/etc/zav.d/key", "-in", f"/srv/www/{name}",
                  "-out", phone.folder / "encrypted")
        (phone.folder / "encrypted").replace(phone.www / "provisioning.xml")
        self.passes = phone.start(context.program("bench_pass"), 1883)
        self.bare = phone.start(context.program("floor_pass"), 1883)
        self.started = [self.passes, self.bare]
        self.request = f"http://provisioning.test/provisioning.xml {settings}"
        self.ours()
        self.floor()

    def ours(self):
        time, result = self.passes.ask("pass").split()
        if result != "success":
            raise RuntimeError(f"the pass ended with {result}")
        return float(time)

    def floor(self):
        return float(self.bare.ask(self.request))

    def close(self):
        for program in self.started:
            program.stop()


WORKS = [Pass(1), Pass(10), Pass(1000), Pass(100_000)]
