// The half of Connection that runs on its network thread.
#include <poll.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "Connection.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t sessionSeconds = 3600;
// A broker that exits closes its connections shortly before or after it stops listening.
constexpr milliseconds brokerExitTime{50};
constexpr int packetsPerRound = 256;
constexpr int firstRefusal = 128;  // MQTT reason codes from here on are errors

}  // namespace

void Connection::run() {
    const common::LockGuard lock(mutex_);
    BackOff backOff;
    while (!isClosing()) {
        {
            const common::UnlockGuard unlocked(mutex_);
            listener_.connecting();
        }
        if (isClosing()) break;
        state_ = State::connecting;
        const BackOff::Loss loss = attempt();
        if (isClosing() || (reached_ == Milestone::none && !forEver_)) break;
        state_ = State::pausing;
        const auto held = std::max(Clock::now() - readySince_, Clock::duration::zero());
        const auto pause = backOff.next(std::chrono::duration_cast<milliseconds>(held), loss);
        changed_.waitFor(mutex_, pause, [this]() REQUIRES(mutex_) { return isClosing(); });
    }
    state_ = State::ended;
    changed_.notifyAll();
}

/// One connection from the name look-up to its end. Returns how it was lost.
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
    std::string notABrokerReason;
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
            notABrokerReason = "it is not an MQTT v5 broker (" + failure_ + ")";
        }
    }
    // A refused connection on the next address would be a less useful reason.
    if (!notABrokerReason.empty()) failure_ = notABrokerReason;
    if (isClosing()) {
        state_ = State::ended;
    } else if (options_.logsEvents && failure_ != lastLoggedFailure_) {
        lastLoggedFailure_ = failure_;
        dbg::Debug::warning() << "Cannot connect to the broker at " << address_.host << ":" << address_.port << ": "
                              << failure_ << "; retrying" << std::endl;
    }
    return BackOff::Loss::plain;
}

/// Returns null if it failed, for the reason in `failure_`, or if the connection is closing.
std::unique_ptr<Link> Connection::dial(const std::string& numericAddress) {
    Link::Options options{options_.clientId, options_.userName, options_.statusTopic, true, 0};
    // Messages queued for this process must arrive after a connection loss, but not those for an earlier process.
    options.cleanStart = !keepSession_ || reached_ == Milestone::none;
    options.sessionSeconds = keepSession_ ? sessionSeconds : 0;
    // libmosquitto's own connect blocks for minutes if packets are dropped, so probe first with a time-out.
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

/// Runs rounds until the link has ended or the connection is closing.
void Connection::pump() {
    callerWait_.closed();
    networkWait_.closed();
    // First: see SocketWait. If it fails, callers wait for the network thread to read.
    (void)callerWait_.watch(link_->descriptor(), POLLIN);
    while (shouldContinue()) {
        const short events = waitForEvents();
        link_->beginRound();
        // Each acknowledgement read lets libmosquitto send another queued message.
        if (outbox_.size() > 1) link_->cork();
        (void)serveLink(networkWait_, events);
        link_->keepAlive();
        {
            const common::UnlockGuard unlocked(mutex_);
            listener_.roundEnded();
        }
        link_->endRound(events);
    }
}

bool Connection::shouldContinue() {
    if (state_ == State::ended || link_->isOver()) return false;
    if (state_ == State::ready) return true;
    const auto now = Clock::now();
    if (state_ == State::flushing) return shouldKeepFlushing(now);
    if (now < readyDeadline_) return true;
    link_->fail(link_->stage() == Link::Stage::accepted
                    ? "the broker does not answer"
                    : "no answer within " + std::to_string(connectTimeout.count()) + " s");
    return false;
}

bool Connection::shouldKeepFlushing(Clock::time_point now) {
    const bool flushed = outbox_.isEmpty() && !link_->hasPendingWrites();
    if (!flushed && now < closeDeadline_) return true;
    // If "offline" could not be sent, the broker must publish the last will.
    link_->disconnect(!outbox_.isEmpty());
    return false;
}

/// Waits on the socket without the mutex; returns its events.
short Connection::waitForEvents() {
    auto until = link_->keepAliveAt();
    if (state_ == State::connecting || state_ == State::subscribing) until = std::min(until, readyDeadline_);
    if (isClosing()) until = std::min(until, closeDeadline_);
    // Only the thread in `serve` was told of the input that it has left.
    if (std::exchange(inputLeft_, false)) networkWait_.unwatch();
    const bool isWatched = networkWait_.watch(link_->descriptor(), link_->eventsToAwait(isClosing()));
    short events = 0;
    {
        const common::UnlockGuard unlocked(mutex_);
        events = isWatched ? networkWait_.wait(until) : networkWait_.poll(until);
    }
    return events;
}

/// Writes and reads, on the thread that waits on `wait`. What has arrived together is read in one round, as the
/// listener handles it together. Returns whether all input was read.
bool Connection::serveLink(const SocketWait& wait, short events) {
    constexpr short input = POLLIN | POLLERR | POLLHUP;
    auto left = static_cast<short>(events & input);
    servePacket(events);
    for (int packets = 1; left != 0 && packets < packetsPerRound && link_->mayRead(); ++packets) {
        left = static_cast<short>(wait.ready() & input);
        if (left != 0) servePacket(left);
    }
    return left == 0;
}

void Connection::servePacket(short events) {
    const bool goesOn = link_->serve(events);
    if (!link_->hasPendingWrites()) outbox_.noteAllSent();
    if (!goesOn) return;
    // Not in the callbacks: libmosquitto sends nothing inside them.
    if (state_ == State::connecting && link_->stage() == Link::Stage::accepted) beginSubscribing();
    if (state_ == State::subscribing && subscriptions_.isSettled()) becomeReady();
}

void Connection::beginSubscribing() {
    state_ = State::subscribing;
    if (reached_ == Milestone::none) reached_ = Milestone::accepted;
    outbox_.limitUnacknowledged(link_->receiveMaximum());
    for (const auto& each : subscriptions_.all()) sendSubscription(each.first);
    // A presence from an earlier connection is stale, and "online" must not be sent before the subscriptions.
    if (!options_.statusTopic.empty()) outbox_.dropTopic(options_.statusTopic);
    for (Outbox::Entry& entry : outbox_.entries()) send(entry);
    outbox_.dropRefused();
}

void Connection::becomeReady() {
    state_ = State::ready;
    reached_ = Milestone::ready;
    readySince_ = Clock::now();
    if (!options_.statusTopic.empty()) enqueue({options_.statusTopic, "online", 1, {}, {}}, true);
    lastLoggedFailure_.clear();
    if (options_.logsEvents) dbg::Debug::info() << "Connected to the broker" << std::endl;
    listener_.connectionReady();
    changed_.notifyAll();
}

// ---- losses ----

/// Reports why an established connection was lost, and returns the kind of loss.
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
    if (options_.logsEvents) logLoss(loss);
    listener_.connectionLost(failure_);
    changed_.notifyAll();
    return loss;
}

void Connection::logLoss(BackOff::Loss loss) {
    if (loss == BackOff::Loss::takeover) {
        dbg::Debug::error() << "Another " << options_.clientId
                            << " is connected to the broker and has taken over from this one" << std::endl;
    } else if (loss == BackOff::Loss::suspected) {
        dbg::Debug::warning() << "The broker closed the connection; perhaps another " << options_.clientId
                              << " is connected and has taken over from this one" << std::endl;
    } else {
        dbg::Debug::warning() << "Connection to the broker lost: " << failure_ << std::endl;
    }
}

/// Some brokers close the connection without a reason when another client takes the session over. A broker that exits
/// or restarts does so too, but then it stops listening.
bool Connection::suspectsTakeover(const std::string& numericAddress) {
    for (const milliseconds pause : {milliseconds(0), brokerExitTime}) {
        if (changed_.waitFor(mutex_, pause, [this]() REQUIRES(mutex_) { return isClosing(); })) return false;
        waker_.drain();
        const common::UnlockGuard unlocked(mutex_);
        const auto refusal = probe(numericAddress, address_.port, Clock::now() + brokerExitTime, waker_.descriptor());
        if (!refusal || !refusal->empty()) return false;
    }
    return true;
}

// ---- the link's callbacks, with mutex_ held ----

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
    // `connect` and `subscribe` report a refusal to their caller; after a reconnection only the log can.
    const bool waitedFor = !options_.logsEvents && (state_ == State::ready || reached_ != Milestone::ready);
    if (!refusal.empty() && !waitedFor) {
        dbg::Debug::error() << "The broker refuses the subscription " << wanted->filter << ": " << refusal << std::endl;
    }
    changed_.notifyAll();
}

bool Connection::arrived(const Incoming& message) { return listener_.messageArrived(message); }

}  // namespace ipc
