#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Commands.h"
#include "DaemonLog.h"
#include "Failure.h"
#include "Output.h"
#include "PassFollower.h"
#include "PassProgress.h"
#include "PassReasons.h"
#include "Session.h"
#include "common/UrlSyntax.h"
#include "debug/Debug.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

using Clock = PassFollower::Clock;

constexpr char stateKey[] = "State.Provisioning";
constexpr char serverKey[] = "System.Provision.ProvisioningServer";
constexpr char success[] = "success";
constexpr std::size_t manyReasons = 4;  // lines of the log: from here on, lint is the shorter way
constexpr int levelWidth = 9;
constexpr std::chrono::seconds settleTime{2};
constexpr std::chrono::milliseconds progressInterval{250};
// How long the journal may take to have the end of a pass that has published its result.
constexpr std::chrono::seconds journalLag{2};
constexpr std::chrono::milliseconds journalPoll{200};
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

void showProgress(PassProgress& progress, const PassFollower& follower, ProgressFeed& feed,
                  std::chrono::milliseconds elapsed) {
    const PassFollower::State state = follower.state();
    const std::vector<JobProgress> news = feed.take();
    progress.show(state.passBegan ? "Provisioning" : "Waiting for the pass to begin",
                  state.isEarlierPassRunning ? std::vector<JobProgress>() : news, elapsed);
}

std::string follow(const Environment& environment, const Options& options, Session& session, PassFollower& follower,
                   ProgressFeed& feed, std::chrono::milliseconds timeout) {
    PassProgress progress(environment, options.json);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + timeout;
    Clock::time_point hintAt = std::min(end, start + environment.hintAfter);
    while (true) {
        showProgress(progress, follower, feed, since(start));
        const std::optional<std::string> result =
            follower.waitUntil(std::min({end, hintAt, Clock::now() + progressInterval}));
        const PassFollower::State state = follower.state();
        const Clock::time_point now = Clock::now();
        if (result) showProgress(progress, follower, feed, since(start));  // what came meanwhile
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

// Why the pass was not a success, or why that is not known.
struct Explanation {
    std::vector<Reason> reasons;
    std::string unknown;
    std::string hint;  // how to find all mistakes at once; empty if there are few
};

Explanation explain(const DaemonLog& log, std::size_t passes) {
    const Clock::time_point end = Clock::now() + journalLag;
    try {
        while (true) {
            PassReasons reasons;
            log.read([&reasons](std::string_view line) { reasons.add(line); });
            if (log.mayLag() && reasons.endedPasses() < passes && Clock::now() < end) {
                std::this_thread::sleep_for(journalPoll);
                continue;
            }
            if (!reasons.reasons().empty()) return {reasons.reasons(), "", ""};
            if (reasons.hasPass()) return {{}, "the daemon's log has neither a warning nor an error of this pass", ""};
            return {{}, "the daemon's log has no line of this pass: System.Debug.LevelMask.ZAV 7 logs everything", ""};
        }
    } catch (const std::runtime_error& reason) {
        return {{}, reason.what(), ""};
    }
}

// Reasons come from the first mistake on; a file with many of them is better checked as a whole.
std::string hintFor(const std::vector<Reason>& reasons, const std::string& server) {
    std::size_t count = 0;
    for (const Reason& reason : reasons) count += reason.texts.size() + reason.more;
    if (count < manyReasons) return "";
    return "zavctl lint --as running " + (server.empty() ? "URL" : common::withoutPassword(server)) +
           " shows all mistakes, and where they are";
}

Json::Value toJson(const std::vector<Reason>& reasons) {
    Json::Value list(Json::arrayValue);
    for (const Reason& reason : reasons) {
        Json::Value texts(Json::arrayValue);
        for (const std::string& text : reason.texts) texts.append(text);
        const Json::UInt64 count = reason.texts.size() + reason.more;
        list.append(toObject({{"level", reason.level},
                              {"texts", texts},
                              {"count", count},
                              {"advice", reason.advice.empty() ? Json::Value() : Json::Value(reason.advice)}}));
    }
    return list;
}

// At most three lines: one or two of the log, and the advice.
void print(std::ostream& out, const Reason& reason) {
    const auto line = [&out](const std::string& level, const std::string& text) {
        out << std::left << std::setw(levelWidth) << level << dbg::escapeControls(text) << "\n";
    };
    const std::size_t count = reason.texts.size() + reason.more;
    line(reason.level, reason.texts.front());
    if (count == 2) line(reason.level, reason.texts.back());
    if (count > 2) line("", "and " + std::to_string(count - 1) + " more such lines");
    if (!reason.advice.empty()) line("", reason.advice);
}

void printResult(std::ostream& out, const std::string& result, const std::string& http,
                 std::chrono::milliseconds duration) {
    out << dbg::escapeControls(result);
    if (result == "partSuccess") out << ": some jobs or settings were not applied";
    out << " (HTTP " << (isNumber(http) ? http : "-") << ", " << seconds(duration) << ")" << std::endl;
}

ExitCode report(const Environment& environment, const Options& options, const std::string& result,
                const std::string& http, std::chrono::milliseconds duration, const Explanation& explanation) {
    if (options.json) {
        const Json::Int64 milliseconds = duration.count();
        Json::Value object =
            toObject({{"result", result}, {"httpStatus", toNumber(http)}, {"milliseconds", milliseconds}});
        if (result != success) object["reasons"] = toJson(explanation.reasons);
        if (!explanation.unknown.empty()) object["reasonsUnknown"] = explanation.unknown;
        if (!explanation.hint.empty()) object["hint"] = explanation.hint;
        printJson(environment.out, object);
    } else {
        printResult(environment.out, result, http, duration);
        for (const Reason& reason : explanation.reasons) print(environment.out, reason);
        if (!explanation.unknown.empty()) print(environment.out, {"unknown", {explanation.unknown}, 0, ""});
        if (!explanation.hint.empty()) print(environment.out, {"hint", {explanation.hint}, 0, ""});
    }
    return result == success || result == "partSuccess" ? ExitCode::done : ExitCode::failed;
}

}  // namespace

void requestProvisioning(const Environment& environment, const Options& options) {
    Session session(environment, options.host);
    session.properties().set(stateKey, clientName, "request");
    if (options.json) {
        printJson(environment.out, toObject({{"requested", true}}));
    } else {
        environment.out << "Provisioning requested." << std::endl;
    }
}

ExitCode provisionAndWait(const Environment& environment, const Options& options, std::chrono::milliseconds timeout,
                          const std::string& logPath) {
    PassFollower follower(clientName, settleTime);
    ProgressFeed feed;
    Session session(environment, options.host,
                    {{propertyprotocol::changeFilter("State"), &follower},
                     {propertyprotocol::statusTopic, &follower},
                     {progressTopic, &feed}});
    const bool earlier = isScreenLocked(session);
    if (earlier) follower.expectEarlierResult();
    const DaemonLog log(logPath);
    const Clock::time_point start = Clock::now();
    session.properties().set(stateKey, clientName, "request");
    const std::string result = follow(environment, options, session, follower, feed, timeout);
    const std::chrono::milliseconds duration = since(start);
    // The daemon writes the HTTP status before the result.
    const std::string http = tryGet(session.properties(), "State.Provisioning.HttpErrorCode").value_or("");
    Explanation explanation = result == success ? Explanation() : explain(log, earlier ? 2 : 1);
    if (!explanation.reasons.empty())
        explanation.hint = hintFor(explanation.reasons, tryGet(session.properties(), serverKey).value_or(""));
    return report(environment, options, result, http, duration, explanation);
}

}  // namespace zavctl
