"""The zavctl program on the phone's own bus: what it prints, and every exit status."""

import json
import os
import select
import shutil
import signal
import subprocess

import phone
from files import LABEL, direct

URL = "https://provisioning.test/"


def zavctl(*words):
    """(exit status, standard output, standard error)"""
    done = subprocess.run(["zavctl", *words], capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


class ZavctlTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": URL}

    def answer(self, *words, status=0):
        """The one object that --json prints; nothing else is said anywhere."""
        code, out, err = zavctl("--json", *words)
        self.assertEqual((code, err, out.count("\n")), (status, "", 1), (out, err))
        return json.loads(out)

    def refused(self, *words, status, word):
        """With and without --json: the status, and the reason where it belongs."""
        code, out, err = zavctl(*words)
        self.assertEqual((code, out), (status, ""), err)
        self.assertRegex(err, r"\Azavctl: .+\n\Z")
        answer = self.answer(*words, status=status)
        self.assertEqual(set(answer), {"error", "reason"})
        self.assertEqual(answer["error"], word)
        return answer["reason"]

    def publish(self, text):
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW)
        if text is not None:
            with open(os.path.join(phone.WWW, "provisioning.xml"), "w", encoding="utf-8") as file:
                file.write(text)

    def test_get_and_set(self):
        self.assertEqual(zavctl("set", LABEL, "a b"), (0, "", ""))
        self.assertEqual(zavctl("get", LABEL), (0, "a b\n", ""))
        self.assertEqual(self.answer("set", LABEL, "-1"), {"param": LABEL, "value": "-1"})
        self.assertEqual(self.answer("get", LABEL), {"param": LABEL, "value": "-1"})
        self.assertEqual(self.bus.get(LABEL), "-1")
        self.bus.wait_change(LABEL, "-1")

    def test_list(self):
        code, out, err = zavctl("list", "NET.MAC.")
        self.assertEqual((code, out, err), (0, f"NET.MAC.Address={phone.MAC}\n", ""))
        self.assertEqual(self.answer("list", "NET.MAC."), {"properties": [{"param": "NET.MAC.Address", "value": phone.MAC}]})
        code, out, _ = zavctl("list")
        keys = [line.split("=", 1)[0] for line in out.splitlines()]
        self.assertEqual(code, 0)
        self.assertEqual(keys, sorted(keys))
        self.assertIn("State.Provisioning", keys)

    def test_status(self):
        self.publish(direct([(LABEL, "status")]))
        self.provision()
        answer = self.answer("status")
        self.assertEqual({key: answer[key] for key in ("server", "result", "httpStatus", "uiLocked", "period")},
                         {"server": URL, "result": "success", "httpStatus": 200, "uiLocked": False, "period": "86400"})
        code, out, err = zavctl("status")
        self.assertEqual((code, err), (0, ""))
        self.assertRegex(out, r"(?m)^Last result +success$")

    def test_watch(self):
        for options in ([], ["--json"]):
            with subprocess.Popen(["zavctl", "watch", LABEL, *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as watch:
                self.addCleanup(watch.kill)

                def seen():
                    self.bus.set(LABEL, "watched")
                    return select.select([watch.stdout], [], [], 0.05)[0]

                phone.wait_until(seen, "a change that is watched")
                line = watch.stdout.readline().decode()
                if options:
                    self.assertEqual(json.loads(line), {"param": LABEL, "value": "watched", "source": "test"})
                else:
                    self.assertEqual(line, f"{LABEL}=watched  (test)\n")
                watch.send_signal(signal.SIGINT)
                _, err = watch.communicate(timeout=phone.DEADLINE)
                self.assertEqual((watch.returncode, err), (0, b""))

    def test_provision(self):
        self.publish(direct([(LABEL, "asked for")]))
        self.assertEqual(zavctl("provision"), (0, "Provisioning requested.\n", ""))
        self.wait_pass_end()
        code, out, err = zavctl("provision", "--wait")
        self.assertEqual((code, err), (0, ""))
        self.assertRegex(out, r"\Asuccess \(HTTP 200, \d+\.\d s\)\n\Z")
        answer = self.answer("provision", "--wait")
        self.assertEqual((answer["result"], answer["httpStatus"]), ("success", 200))
        self.assertEqual(self.bus.get(LABEL), "asked for")
        self.assertIn(("State.Provisioning", "request"), self.bus.changes())

    def test_partial_success_is_0_and_fail_is_1(self):
        self.publish(direct([(LABEL, "half"), ("No.Such", "1")]))
        code, out, _ = zavctl("provision", "--wait")
        self.assertEqual(code, 0)
        self.assertRegex(out, r"\ApartSuccess: .* \(HTTP 200, ")
        self.publish(None)
        code, out, _ = zavctl("provision", "--wait")
        self.assertEqual(code, 1)
        self.assertRegex(out, r"\Afail \(HTTP 404, ")
        answer = self.answer("provision", "--wait", status=1)
        self.assertEqual((answer["result"], answer["httpStatus"]), ("fail", 404))

    def test_a_value_that_is_not_allowed_is_1(self):
        before = self.bus.get("Time.Format")
        self.assertIn("Time.Format", self.refused("set", "Time.Format", "25h", status=1, word="invalid-value"))
        self.assertEqual(self.bus.get("Time.Format"), before)

    def test_a_wrong_command_line_is_2(self):
        for words in ([], ["what"], ["get"], ["set", LABEL], ["get", LABEL, "more"], ["provision", "--timeout", "soon"]):
            with self.subTest(words):
                self.refused(*words, status=2, word="usage")
        self.assertEqual(self.bus.changes(), [])

    def test_nobody_there_is_3(self):
        self.refused("get", LABEL, "--host", "127.0.0.1:9", status=3, word="unreachable")
        phone.service("stop", "properties")
        try:
            for words in (["get", LABEL], ["set", LABEL, "x"], ["list"], ["status"], ["watch"], ["provision", "--wait"]):
                with self.subTest(words):
                    self.refused(*words, status=3, word="unreachable")
        finally:
            phone.service("start", "properties")

    def test_an_unknown_key_is_4(self):
        self.assertIn("No.Such", self.refused("get", "No.Such", status=4, word="not-found"))
        self.assertIn("No.Such", self.refused("set", "No.Such", "1", status=4, word="not-found"))

    def test_a_pass_that_does_not_come_is_5(self):
        phone.service("kill", "daemon")
        try:
            self.assertIn("no provisioning pass began",
                          self.refused("provision", "--wait", "--timeout", "0.2", status=5, word="timed-out"))
        finally:
            self.boot()


if __name__ == "__main__":
    phone.main()
