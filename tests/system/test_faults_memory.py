"""Files that are large, that hold many jobs, or that include themselves: applied completely or ended cleanly, within
bounds of memory and time, and nothing is kept afterwards."""

import time

import faults
import phone
from files import categories, element, params, root, settings_file
from server import Answer

MANY = 100_000
GROUPS = 1200
GROUP = 3          # settings of a group
ITEMS = 200_000
KIB = 1 << 10
PEAK = 600 << 10   # KiB
TIME = 100         # seconds in which even the largest file has ended


def spread(count):
    """So many settings of which the test's own bus client hears nothing."""
    return [(f"Directory.Online.{i % 4}.Name", f"value {i}") for i in range(count)]


class MemoryFaultsTest(faults.PassFaultTest):
    def serve_two_levels(self, path, text):
        """A settings file of format 1.0, as an administrator publishes it."""
        self.server.answers.update({
            "/provisioning.xml": Answer(categories([("nvm", "/list.xml")])),
            "/list.xml": Answer(root("nvm", [element("file", {"url": path})], version="1.0")),
            path: Answer(text)})
        self.configure(self.server)

    def run_pass(self):
        """Its result, and the most KiB that it took."""
        faults.reset_peak(phone.service_pid())
        self.log.mark()
        self.bus.mark()
        begin = time.monotonic()
        self.request()
        # The bus is waited for, not the log, which is long.
        result = phone.wait_until(lambda: [v for k, v in self.bus.changes("State.Provisioning") if "request" not in v],
                                  lambda: f"the pass's result in {self.bus.changes()}", TIME)[-1]
        self.assertIn(("State.Provisioning.LockUI", "0"), self.bus.changes())
        print(f"{time.monotonic() - begin:.1f} s")
        return result, faults.peak(phone.service_pid())

    def check_values(self, settings):
        wrong = {key: value for key, value in dict(settings).items() if self.bus.get(key) != value}
        self.assertEqual(wrong, {})

    def test_a_hundred_thousand_settings(self):
        settings = spread(MANY)
        text = settings_file(settings)
        with self.fault("settings"):
            self.serve_two_levels("/settings.xml", text)
            result, peak = self.run_pass()
            self.assertEqual(result, "success")
            self.check_memory()
            self.check_values(settings)
            print(f"{MANY} settings: peak {peak} KiB, {peak * KIB / len(text):.1f} times the file's {len(text) // KIB} KiB; "
                  f"afterwards {faults.dirty(phone.service_pid())}, idle {self.idle}")

    def test_many_groups(self):
        settings = spread(GROUPS * GROUP)
        groups = [element("settings", {}, params(settings[i * GROUP:(i + 1) * GROUP])) for i in range(GROUPS)]
        with self.fault("groups"):
            self.serve_two_levels("/groups.xml", root("nvm", groups, version="1.0"))
            self.assertEqual(self.run_pass()[0], "success")
            self.assertEqual(self.log.count("+++++ Starting NVMJobHandler"), GROUPS)
            self.assertEqual(self.log.count("Applying param: "), len(settings))
            self.check_values(settings)

    def test_a_large_file_that_includes_itself(self):
        # The first item counts: it has no version. The others only take room.
        items = [element("file", {"url": "/large.xml"})] + [
            element("file", {"version": "2016-01-01_00:00:00", "url": f"/{i}.xml"}) for i in range(ITEMS - 1)]
        with self.fault("large"):
            self.serve_two_levels("/large.xml", root("nvm", items, version="1.0"))
            result, peak = self.run_pass()
            self.assertEqual(result, "fail")
            print(f"{ITEMS} items that include themselves: peak {peak} KiB")
            if not faults.is_sanitized(phone.service_pid()):
                self.assertLess(peak, PEAK)

    def test_a_file_that_includes_itself_twice(self):
        twice = root("nvm", [element("nvm", {}, [element("file", {"url": "/twice.xml"})])] * 2, version="1.0")
        with self.fault("twice"):
            self.serve_two_levels("/twice.xml", twice)
            result, peak = self.run_pass()
            self.assertEqual(result, "fail")
            print(f"included {self.server.requests.count('/twice.xml')} times, peak {peak} KiB")
            if not faults.is_sanitized(phone.service_pid()):
                self.assertLess(peak, PEAK)


if __name__ == "__main__":
    phone.main()
