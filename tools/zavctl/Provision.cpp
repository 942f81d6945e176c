#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "PassFollower.h"
#include "Session.h"
#include "debug/Debug.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

using Clock = PassFollower::Clock;

constexpr std::chrono::seconds settleTime{2};
constexpr std::chrono::seconds progressInterval{1};
// Finding the likely reason must not delay the exit if the property service hangs.
constexpr std::chrono::milliseconds reasonTime{500};

std::string seconds(std::chrono::milliseconds duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(duration.count()) / 1000);
    return text;
}

std::chrono::milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

std::optional<std::string> tryGet(propertyapi::IPropertyApi& properties, const std::string& key) {
    try {
        return properties.get(key);
    } catch (const propertyapi::PropertyException&) {
        return std::nullopt;
    }
}

bool isScreenLocked(Session& session) {
    return tryGet(session.properties(), "State.Provisioning.LockUI") == std::optional<std::string>("1");
}

class ProgressLine {
 public:
    explicit ProgressLine(const Environment& environment, bool json)
        : out_(environment.out), shown_(environment.outIsTerminal && !json) {}

    void show(const char* what, std::chrono::milliseconds elapsed) {
        if (shown_) out_ << "\r\x1b[K" << what << " … " << elapsed.count() / 1000 << " s" << std::flush;
    }
    void clear() {
        if (shown_) out_ << "\r\x1b[K" << std::flush;
    }

 private:
    std::ostream& out_;
    const bool shown_;
};

// The likely reason why the requested pass has not begun.
std::string likelyReason(Session& session, const PassFollower::State& state) {
    if (state.isEarlierPassRunning) return "another pass is running; the requested pass begins when it ends";
    session.limitRequests(reasonTime);
    try {
        propertyapi::IPropertyApi& properties = session.properties();
        if (properties.get("System.Provision.ProvisioningServer").empty()) {
            return "no server is set; zavctl set System.Provision.ProvisioningServer URL sets it";
        }
        if (properties.get("State.Provisioning.OnBootUp") != "done") {
            return "zavd has not enabled provisioning since the phone started (it waits until the network has been up "
                   "for 90 s), or is not running";
        }
    } catch (const propertyapi::PropertyNotFoundException&) {  // a phone without boot-up provisioning
    } catch (const propertyapi::PropertyException&) {
        return "the property service does not answer";
    }
    return "zavd is not running, or was restarted and waits until the network has been up for 90 s, or the server's "
           "URL is wrong; its log says which";
}

[[noreturn]] void failLost(const std::string& reason) {
    throw Failure(ExitCode::unreachable, "unreachable",
                  reason + " (the pass may continue: zavctl status shows its result later)");
}

[[noreturn]] void failTimedOut(Session& session, const PassFollower::State& state, std::chrono::milliseconds timeout) {
    const std::string reason =
        state.passBegan ? "the provisioning pass has not ended within " + seconds(timeout) +
                              " and continues: zavctl status shows its result later; --timeout S waits longer"
                        : "no provisioning pass began within " + seconds(timeout) + ": " + likelyReason(session, state);
    throw Failure(ExitCode::timedOut, "timed-out", reason);
}

std::string follow(const Environment& environment, const Options& options, Session& session, PassFollower& follower,
                   std::chrono::milliseconds timeout) {
    ProgressLine progress(environment, options.json);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + timeout;
    Clock::time_point hintAt = std::min(end, start + environment.hintAfter);
    while (true) {
        progress.show(follower.state().passBegan ? "Provisioning" : "Waiting for the pass to begin", since(start));
        const std::optional<std::string> result =
            follower.waitUntil(std::min({end, hintAt, Clock::now() + progressInterval}));
        const PassFollower::State state = follower.state();
        const Clock::time_point now = Clock::now();
        if (result || !state.lostReason.empty() || now >= end) progress.clear();
        if (result) return *result;
        if (!state.lostReason.empty()) failLost(state.lostReason);
        if (now >= end && state.result) return *state.result;
        if (now >= end) failTimedOut(session, state, timeout);
        if (now < hintAt) continue;
        hintAt = end;
        if (state.passBegan || state.result) continue;
        const std::string reason = likelyReason(session, state);
        progress.clear();
        if (const std::string lost = follower.state().lostReason; !lost.empty()) failLost(lost);
        printError(environment.err, "no provisioning pass has begun yet: " + reason);
    }
}

ExitCode report(const Environment& environment, const Options& options, const std::string& result,
                const std::string& http, std::chrono::milliseconds duration) {
    if (options.json) {
        const Json::Int64 milliseconds = duration.count();
        printJson(environment.out,
                  toObject({{"result", result}, {"httpStatus", toNumber(http)}, {"milliseconds", milliseconds}}));
    } else {
        environment.out << dbg::escapeControls(result);
        if (result == "partSuccess") environment.out << ": some jobs or settings were not applied";
        environment.out << " (HTTP " << (isNumber(http) ? http : "-") << ", " << seconds(duration) << ")" << std::endl;
    }
    return result == "success" || result == "partSuccess" ? ExitCode::done : ExitCode::failed;
}

}  // namespace

ExitCode provision(const Environment& environment, const Options& options, bool wait,
                   std::chrono::milliseconds timeout) {
    PassFollower follower(clientName, settleTime);
    Session::Subscriptions subscriptions;
    if (wait) {
        subscriptions = {{propertyprotocol::changeFilter("State"), &follower},
                         {propertyprotocol::statusTopic, &follower}};
    }
    Session session(environment, options.host, subscriptions);
    if (wait && isScreenLocked(session)) follower.expectEarlierResult();
    const Clock::time_point start = Clock::now();
    session.properties().set("State.Provisioning", clientName, "request");
    if (!wait) {
        if (options.json) {
            printJson(environment.out, toObject({{"requested", true}}));
        } else {
            environment.out << "Provisioning requested." << std::endl;
        }
        return ExitCode::done;
    }
    const std::string result = follow(environment, options, session, follower, timeout);
    const std::chrono::milliseconds duration = since(start);
    // The daemon writes the HTTP status before the result.
    const std::string http = tryGet(session.properties(), "State.Provisioning.HttpErrorCode").value_or("");
    return report(environment, options, result, http, duration);
}

}  // namespace zavctl
