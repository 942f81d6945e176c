"""The stages in which a fault strikes. `reach` brings the phone there, `go_on` lets it continue under the fault, `over`
says whether the stage has ended, and `wait_over` waits for that once the fault is mended."""


import time

import case as cases
import faults
import phone
from files import direct
from server import Answer


class Stage:
    begins = False  # the daemon begins only when the stage goes on

    def reach(self, case):
        raise NotImplementedError

    def go_on(self, case):
        case.gate.set()

    def over(self, case):
        return case.daemon_ended() or case.passes_ended() > 0

    def wait_over(self, case):
        case.wait_back(lambda: self.over(case), "the line that a pass ends with")


class StartUp(Stage):
    """The daemon is started while the fault is on. A start that fails is repeated after it, as the service manager does."""

    begins = True

    def reach(self, case):
        case.start_idle()
        phone.service("stop", "daemon")
        case.configure(case.good)
        case.bus.set("State.Provisioning.OnBootUp", "done")
        type(case).usable = False

    def go_on(self, case):
        case.launch()

    def over(self, case):
        return case.daemon_ended() or case.log.count("for stabilization.") > 0

    def wait_over(self, case):
        case.wait_back(lambda: self.over(case), "the end of the start")
        if case.daemon_ended():
            case.launch()
        case.settle_quietly()
        case.pid_before = phone.service_pid()


class Stabilising(Stage):
    def reach(self, case):
        case.start_idle()
        phone.service("stop", "daemon")
        case.start_daemon()
        case.configure(case.good)
        case.log.wait("for stabilization.")
        case.deadline = time.monotonic() + 1.5

    def go_on(self, case):
        pass

    def over(self, case):
        return case.daemon_ended() or time.monotonic() > case.deadline

    def wait_over(self, case):
        case.wait_back(lambda: case.log.count("Enabling provisioning function.") > 0, "the end of the wait for the network",
                       cases.STEP, 0.05)
        # Without its properties the daemon cannot know whether the pass after boot is due, and leaves it out.
        case.wait_back(lambda: case.log.count("already done, skipping") or case.passes_ended() or
                       case.log.count("PropertyApi exception: Property 'State.Provisioning.OnBootUp'"), "the end of the boot")


class Idle(Stage):
    """Nothing happens for as long as the fault lasts: half a second of the machine's time, many of the phone's."""

    def reach(self, case):
        case.start_idle()
        case.configure(case.good)
        case.log.mark()
        case.deadline = time.monotonic() + 0.5

    def go_on(self, case):
        pass

    def over(self, case):
        return case.daemon_ended() or time.monotonic() > case.deadline

    def wait_over(self, case):
        pass


class Request(Stage):
    """The request for a pass comes while the fault is on."""

    def reach(self, case):
        case.start_idle()
        case.log.mark()
        text = direct(case.new_settings(20))
        case.known.add(text.encode())
        case.server.answers["/provisioning.xml"] = Answer(text)
        case.configure(case.server)
        case.deadline = time.monotonic() + 1

    def go_on(self, case):
        case.request()

    def over(self, case):
        return super().over(case) or (time.monotonic() > case.deadline and case.log.count("Provisioning Started") == 0)


class Download(Stage):
    """The server has the request for the initial file and has not answered it."""

    part = 10

    def reach(self, case):
        case.start_idle()
        case.log.mark()
        text = direct(case.new_settings(20))
        case.known.add(text.encode())
        case.begin(Answer(text, gate=case.gate, part=self.part))


class Settings(Stage):
    """In the middle of a settings job. The property service is frozen when the stage is reached."""

    def reach(self, case):
        case.start_idle()
        settings = case.new_settings(150)
        case.known.add(direct(settings).encode())
        case.frozen = case.begin_settings(settings, cases.APPLIED)

    def go_on(self, case):
        pass


class BootUpPass(Download):
    def reach(self, case):
        case.start_idle()
        phone.service("stop", "daemon")
        text = direct(case.new_settings(20))
        case.known.add(text.encode())
        case.server.requests.clear()
        case.server.answers["/provisioning.xml"] = Answer(text, gate=case.gate, part=self.part)
        case.configure(case.server)
        case.start_daemon(boot_pass=True)
        case.log.wait("for stabilization.")
        phone.jump(90)
        phone.wait_until(lambda: case.server.requests, "the download of the pass after boot")


class Job(Stage):
    """The server has sent a part of what a job of the pass downloads."""

    jobs, path, body = (), "", b""

    def reach(self, case):
        case.start_idle()
        case.log.mark()
        body = self.body or direct(case.new_settings(20)).encode()
        text = cases.initial(*self.jobs_for(case), cases.settings(case.new_settings(20)))  # the last job, its values stay
        case.known |= {text.encode(), body}
        case.server.requests.clear()
        case.server.answers = {"/provisioning.xml": Answer(text),
                               self.path: Answer(body, gate=case.gate, part=len(body) // 2)}
        case.configure(case.server)
        case.request()
        phone.wait_until(lambda: self.path in case.server.requests, f"the request for {self.path}")

    def jobs_for(self, _case):
        return self.jobs


class Firmware(Job):
    jobs, path, body = (cases.firmware(),), "/image.bin", cases.IMAGE


class PhoneBook(Job):
    jobs, path, body = (cases.custom({"type": "LocalPhoneBook", "url": "/book.xml"}),), "/book.xml", cases.BOOK


class Redirect(Job):
    path, body = "/there/provisioning.xml", b""

    def jobs_for(self, case):
        return (cases.custom({"type": "Redirect", "url": f"{case.server.url}there/"}),)


class Publication(Stage):
    """The pass is over and its end is being written: the property service is frozen at the first of these writes."""

    def reach(self, case):
        case.start_idle()
        case.log.mark()
        case.begin(Answer("", 404, gate=case.gate))
        case.frozen = case.freeze("properties")
        case.gate.set()
        case.log.wait("Worker failed to download initial job")
        phone.wait_until(lambda: phone.asleep(phone.service_pid()), "the daemon waiting for the service")

    def go_on(self, case):
        pass


class Shutdown(Download):
    """SIGTERM comes in mid-download while the fault is on. No clock is moved: the end has ten seconds."""

    def go_on(self, case):
        case.took, case.status = case.stop_daemon()
        case.figures["stop"] = case.took
        case.gate.set()

    def over(self, case):
        return True

    def wait_over(self, case):
        case.hold_ended_in_time()
        case.configure(case.good)
        case.launch()
        case.settle_quietly()
        case.pid_before = phone.service_pid()


STAGES = {"start-up": StartUp, "stabilising": Stabilising, "idle": Idle, "request": Request, "boot-up pass": BootUpPass, "download": Download,
          "settings": Settings, "firmware": Firmware, "phone book": PhoneBook, "redirect": Redirect,
          "publication": Publication, "shutdown": Shutdown}
