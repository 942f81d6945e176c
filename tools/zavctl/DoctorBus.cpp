#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Core/Utils.h"
#include "Doctor.h"
#include "common/Execute.h"
#include "ipc/IPCException.h"

namespace zavctl {

namespace {

constexpr std::chrono::seconds requestTime{2};
constexpr std::chrono::milliseconds passTime{500};
constexpr std::chrono::seconds daemonTime{3};
constexpr std::chrono::seconds journalTime{5};

Finding checkBroker(Examination& examination) {
    try {
        examination.bus->connect(examination.host);
        examination.bus->limitRequests(requestTime);
        examination.brokerAnswers = true;
        return ok(examination.host + " accepts connections");
    } catch (const ipc::IPCException& reason) {
        return error(reason.what(), "Start the broker; --host selects another one.");
    }
}

Finding checkPropertyService(Examination& examination) {
    if (!examination.brokerAnswers) return notChecked("no connection to the broker");
    try {
        examination.macAddress = examination.properties->get("NET.MAC.Address");
        examination.serviceAnswers = true;
    } catch (const propertyapi::PropertyException& reason) {
        return error(reason.what(), "Start prop-service; if it runs, restart it.");
    }
    if (!examination.macAddress.empty()) return ok("answers; the phone is " + examination.macAddress);
    return warning("answers; the phone has no MAC address, so files for any phone are accepted",
                   "zavctl set NET.MAC.Address ADDRESS");
}

// The daemon gives no answer: whether it runs. Its lock is not tried: a daemon that starts meanwhile would end.
Finding silentDaemon() {
    Finding gone = error("zavd is not running", "Start it; its log says why it ended.");
    struct stat status {};
    if (::stat((zav::provisioningDirectory + "zavd:lock").c_str(), &status) != 0) {
        return errno == EACCES ? error("zavd does not answer", "Start it; if it runs, restart it.") : gone;
    }
    std::array<char, 64> wanted{};
    std::snprintf(wanted.data(), wanted.size(), "%02x:%02x:%ju", major(status.st_dev), minor(status.st_dev),
                  static_cast<uintmax_t>(status.st_ino));
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, type, kind, access, process, file;
        words >> number >> type >> kind >> access >> process >> file;
        if (type != "FLOCK" || file != wanted.data()) continue;
        return error("zavd (process " + process + ") does not answer", "Restart it: it hangs.");
    }
    return gone;
}

// Only a pass answers the first question. The second one is not asked during a pass: it has one answer for each
// progress, and the phone's watchdog waits for it.
Finding checkDaemon(Examination& examination) {
    if (!examination.brokerAnswers) return notChecked("no connection to the broker");
    examination.bus->subscribe("prov-client/auto-reboot", examination.busy);
    examination.bus->subscribe("prov-client/watchdog", examination.alive);
    examination.bus->publish("auto-reboot/prov-client", R"({"param":"State.System.QA.AutomaticReboot.IsBusyQuery"})",
                             1);
    const bool pass = examination.busy.waitFor(passTime);
    if (!pass) examination.bus->publish("watchdog/prov-client", R"({"param":"Are you alive?"})", 1);
    examination.daemonAnswers = pass || examination.alive.waitFor(daemonTime);
    if (examination.daemonAnswers) return ok(pass ? "answers; a pass is running" : "answers");
    return silentDaemon();
}

bool endsWith(const std::string& line, const std::string& text) {
    return line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0;
}

// The last line that says something decides.
Finding readLog(std::istream& log) {
    Finding state = {Level::unknown, "the log does not say"};
    for (std::string line; std::getline(log, line);) {
        if (endsWith(line, "ZAV starting up...")) {
            state = warning("not yet: the daemon is starting", "Wait; its log says what it waits for.");
        } else if (endsWith(line, "Network not ready yet.")) {
            state = error("no: the daemon waits for the network",
                          "See wired interface, local web server and /etc/services.");
        } else if (endsWith(line, "seconds for stabilization.")) {
            state = warning("not yet: the daemon lets the network settle", "Wait up to 90 s; requests are dropped.");
        } else if (endsWith(line, "Enabling provisioning function.")) {
            state = ok("yes");
        }
    }
    return state;
}

Finding checkEnabled(Examination& examination) {
    if (!examination.daemonAnswers) return notChecked("the daemon does not answer");
    std::string path = examination.log;
    if (path.empty()) {
        path = examination.folder + "/journal";
        try {
            os::execute("journalctl -q -b -o cat --no-pager -u zavd.service >" + path, journalTime);
        } catch (const os::ExecuteException&) {
            return {Level::unknown, "the journal cannot be read; --log FILE names the daemon's log"};
        }
    }
    std::ifstream log(path);
    return log ? readLog(log) : Finding{Level::unknown, path + " cannot be read"};
}

}  // namespace

std::vector<Check> busChecks() {
    return {{"broker", checkBroker},
            {"property service", checkPropertyService},
            {"daemon", checkDaemon},
            {"provisioning enabled", checkEnabled}};
}

}  // namespace zavctl
