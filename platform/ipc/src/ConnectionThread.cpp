// The half of Connection that runs on its network thread.
#include <poll.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "Connection.h"
#include "Socket.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t sessionSeconds = 3600;
// A broker that dies closes its connections a moment before, or after, it stops listening.
constexpr milliseconds dyingTime{50};
constexpr int firstRefusal = 128;  // of MQTT's reasons

}  // namespace

void Connection::run() {
    const common::LockGuard lock(mutex_);
    BackOff backOff;
    while (!isClosing()) {
        state_ = State::connecting;
        const BackOff::Loss loss = attempt();
        if (isClosing() || (best_ == Best::nothing && !forEver_)) break;
        state_ = State::pausing;
        changed_.waitFor(mutex_, backOff.next(held(), loss), [this]() REQUIRES(mutex_) { return isClosing(); });
    }
    state_ = State::ended;
    changed_.notifyAll();
}

/// How long the last connection was ready.
milliseconds Connection::held() const {
    if (readySince_ == Clock::time_point::max()) return milliseconds(0);
    return std::chrono::duration_cast<milliseconds>(Clock::now() - readySince_);
}

/// One connection from the look-up of the broker's name to its end. Returns how it was lost.
BackOff::Loss Connection::attempt() {
    failure_.clear();
    readyDeadline_ = Clock::now() + connectTimeout;
    readySince_ = Clock::time_point::max();
    std::vector<std::string> addresses;
    std::string unresolved;
    {
        const common::UnlockGuard unlocked(mutex_);
        addresses = resolve(address_, unresolved);
    }
    if (addresses.empty()) failure_ = unresolved;
    std::string notABroker;
    for (const std::string& address : addresses) {
        if (isClosing()) return BackOff::Loss::plain;
        link_ = dial(address);
        if (!link_) continue;
        pump();
        if (isUp() && !isClosing()) return afterLoss(address);
        const Link::Stage stage = link_->stage();
        failure_ = link_->failure();
        link_.reset();
        if (isClosing()) break;
        if (stage == Link::Stage::silent || stage == Link::Stage::answering) {
            notABroker = "what listens there did not answer as an MQTT broker (" + failure_ + ")";
        }
    }
    // The next address may have nobody listening at all, which tells less.
    if (!notABroker.empty()) failure_ = notABroker;
    if (isClosing()) {
        state_ = State::ended;
    } else {
        log_.failed(address_, failure_);
    }
    return BackOff::Loss::plain;
}

/// Null when it failed, for the reason in `failure_`, or is to end.
std::unique_ptr<Link> Connection::dial(const std::string& numericAddress) {
    Link::Options options{options_.clientId, options_.userName, options_.statusTopic, true, 0};
    // What was queued for us during a cut is to arrive, but nothing of the process before this one.
    options.cleanStart = !keepSession_ || best_ == Best::nothing;
    options.sessionSeconds = keepSession_ ? sessionSeconds : 0;
    // libmosquitto's own connect would block for minutes where packets vanish; so ask first, with a time-out.
    std::optional<std::string> probed;
    while (!probed) {
        waker_.drain();
        if (isClosing()) return nullptr;
        const common::UnlockGuard unlocked(mutex_);
        probed = probe(numericAddress, address_.port, readyDeadline_, waker_.descriptor());
    }
    failure_ = *probed;
    if (!failure_.empty()) return nullptr;
    std::unique_ptr<Link> link;
    std::string failure;
    try {
        const common::UnlockGuard unlocked(mutex_);
        LinkListener& listener = *this;
        link = std::make_unique<Link>(options, listener);
        failure = link->connect(numericAddress, address_.port);
    } catch (const IPCException& error) {
        failure = error.what();
    }
    failure_ = failure;
    if (!failure_.empty()) return nullptr;
    outbox_.startConnection();
    subscriptions_.startConnection();
    return link;
}

/// Returns when the link is over, or is to end.
void Connection::pump() {
    while (mayGoOn()) {
        const short events = waitForEvents();
        link_->beginRound();
        // Each acknowledgement that is read lets libmosquitto send another message that waits.
        if (outbox_.size() > 1) link_->sendTogether();
        serve(events);
        {
            const common::UnlockGuard unlocked(mutex_);
            listener_.roundEnded();
        }
        link_->endRound(events);
    }
}

bool Connection::mayGoOn() {
    if (state_ == State::ended || link_->isOver()) return false;
    const auto now = Clock::now();
    if (state_ == State::flushing) return mayGoOnFlushing(now);
    if (state_ == State::ready || now < readyDeadline_) return true;
    link_->fail(link_->stage() == Link::Stage::accepted
                    ? "the broker does not answer"
                    : "no answer within " + std::to_string(connectTimeout.count()) + " s");
    return false;
}

bool Connection::mayGoOnFlushing(Clock::time_point now) {
    const bool flushed = outbox_.isEmpty() && !link_->isBehind();
    if (!flushed && now < closeDeadline_) return true;
    // What could not say "offline" itself leaves that to its last will.
    link_->disconnect(!outbox_.isEmpty());
    return false;
}

/// Waits on the socket without the mutex; returns its events.
short Connection::waitForEvents() {
    auto until = link_->upkeepAt();
    if (state_ == State::connecting || state_ == State::subscribing) until = std::min(until, readyDeadline_);
    if (isClosing()) until = std::min(until, closeDeadline_);
    pollfd watched[2] = {{link_->descriptor(), link_->eventsToAwait(isClosing()), 0}, {waker_.descriptor(), POLLIN, 0}};
    const common::UnlockGuard unlocked(mutex_);
    const auto wait = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
    poll(watched, 2, static_cast<int>(std::max<milliseconds::rep>(wait, 0)));
    if (watched[1].revents != 0) waker_.drain();
    return watched[0].revents;
}

void Connection::serve(short events) {
    const bool goesOn = link_->serve(events);
    if (!link_->isBehind()) outbox_.noteAllSent();
    if (!goesOn) return;
    // Here and not in the callbacks, inside which libmosquitto sends nothing.
    if (state_ == State::connecting && link_->stage() == Link::Stage::accepted) beginSubscribing();
    if (state_ == State::subscribing && subscriptions_.isSettled()) becomeReady();
}

void Connection::beginSubscribing() {
    state_ = State::subscribing;
    if (best_ == Best::nothing) best_ = Best::accepted;
    outbox_.limitUnacknowledged(link_->receiveMaximum());
    for (const auto& each : subscriptions_.all()) sendSubscription(each.first);
    // The presence of an earlier connection is out of date, and "online" would come before we can be asked.
    if (!options_.statusTopic.empty()) outbox_.dropTopic(options_.statusTopic);
    for (Outbox::Entry& entry : outbox_.entries()) send(entry);
    outbox_.dropRefused();
}

void Connection::becomeReady() {
    state_ = State::ready;
    best_ = Best::ready;
    readySince_ = Clock::now();
    if (!options_.statusTopic.empty()) enqueue({options_.statusTopic, "online", 1, {}, {}}, true);
    log_.connected();
    listener_.connectionReady();
    changed_.notifyAll();
}

// ---- losses ----

/// Says why a connection that was up is gone, and returns the kind of loss.
BackOff::Loss Connection::afterLoss(const std::string& numericAddress) {
    BackOff::Loss loss = link_->loss();
    const bool closedByPeer = link_->isClosedByPeer();
    failure_ = link_->failure();
    link_.reset();
    state_ = State::pausing;
    if (closedByPeer && suspectsTakeover(numericAddress)) {
        loss = BackOff::Loss::suspected;
        failure_ = "the broker closed the connection; perhaps another client named \"" + options_.clientId +
                   "\" has taken over the session";
    }
    if (isClosing()) return loss;
    log_.lost(loss, failure_);
    listener_.connectionLost(failure_);
    changed_.notifyAll();
    return loss;
}

/// Not every broker tells a client that it gives its session to another one: some close the connection without a word.
/// One that dies or is restarted does so too, but does not listen all the while.
bool Connection::suspectsTakeover(const std::string& numericAddress) {
    for (const milliseconds pause : {milliseconds(0), dyingTime}) {
        if (changed_.waitFor(mutex_, pause, [this]() REQUIRES(mutex_) { return isClosing(); })) return false;
        waker_.drain();
        const common::UnlockGuard unlocked(mutex_);
        const auto refusal = probe(numericAddress, address_.port, Clock::now() + dyingTime, waker_.descriptor());
        if (!refusal || !refusal->empty()) return false;
    }
    return true;
}

// ---- what the link hears, with mutex_ held ----

void Connection::acknowledged(int identifier, int reason) {
    mutex_.assertHeld();
    const auto topic = outbox_.settle(identifier);
    if (!topic) return;
    if (reason < firstRefusal) {
        listener_.messageAcknowledged(*topic);
    } else {
        dbg::Debug::error() << "The broker refuses a message on " << *topic << ": " << mosquitto_reason_string(reason)
                            << std::endl;
    }
}

void Connection::subscribed(int identifier, const std::string& refusal) {
    mutex_.assertHeld();
    const auto* const wanted = subscriptions_.answered(identifier, refusal);
    if (wanted == nullptr) return;
    // The first time, and for a later `subscribe`, somebody waits for the answer; otherwise the log is the one to tell.
    const bool waitedFor = !options_.logsItself && (state_ == State::ready || best_ != Best::ready);
    if (!refusal.empty() && !waitedFor) {
        dbg::Debug::error() << "The broker refuses the subscription " << wanted->filter << ": " << refusal << std::endl;
    }
    changed_.notifyAll();
}

bool Connection::arrived(const Incoming& message) { return listener_.messageArrived(message); }

}  // namespace ipc
