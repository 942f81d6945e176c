#include "Connection.h"

#include <utility>

#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

constexpr std::chrono::milliseconds flushTimeout{500};

bool isConnectionFailure(int result) {
    return result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
}

}  // namespace

Connection::Connection(Options options, ConnectionListener& listener)
    : options_(std::move(options)), listener_(listener), keepSession_(options_.keepSession) {}

Connection::~Connection() { close(); }

void Connection::open(const std::string& host, bool forEver) {
    address_ = parseAddress(host);
    forEver_ = forEver;
    thread_ = startThread("ipc-network", [this] { run(); });
}

void Connection::waitUntilReady() {
    const std::string broker = address_.host + ":" + std::to_string(address_.port);
    const common::LockGuard lock(mutex_);
    // The thread has the same limit. The extra second is for a name look-up, which it cannot interrupt.
    const auto limit = Clock::now() + connectTimeout + std::chrono::seconds(1);
    const auto decided = [this]() REQUIRES(mutex_) { return state_ == State::ready || state_ == State::ended; };
    if (!changed_.waitUntil(mutex_, limit, decided)) {
        throw IPCException("Cannot connect to the broker at " + broker + ": no answer");
    }
    if (state_ == State::ended) throw IPCException("Cannot connect to the broker at " + broker + ": " + failure_);
    subscriptions_.requireGranted();
}

void Connection::close() {
    {
        const common::LockGuard lock(mutex_);
        if (isUp() && !isClosing()) {
            if (!options_.statusTopic.empty()) enqueue({options_.statusTopic, "offline", 1, {}, {}}, true);
            closeDeadline_ = Clock::now() + flushTimeout;
            state_ = State::flushing;
        } else if (!isClosing()) {
            state_ = State::ended;
        }
    }
    changed_.notifyAll();
    waker_.wake();
    if (thread_.joinable()) thread_.join();
}

void Connection::dropSession() {
    const common::LockGuard lock(mutex_);
    keepSession_ = false;
}

void Connection::resumeReading() {
    {
        const common::LockGuard lock(mutex_);
        if (!link_ || !link_->resumeReading()) return;
    }
    waker_.wake();
}

// ---- sending ----

bool Connection::publish(const Message& message, Departure departure) {
    requirePublishable(message);
    const common::LockGuard lock(mutex_);
    if (isClosing()) throw IPCException("The connection is closed");
    if (link_ && departure == Departure::withNext) link_->cork();
    const bool isSent = write(message);
    if (link_ && departure == Departure::atOnce) link_->uncork();
    return isSent;
}

bool Connection::write(const Message& message) {
    const bool isKept = message.qualityOfService > 0;
    if (!isKept && !isUp()) return false;
    if (isKept ? outbox_.isFull() : outbox_.isSocketFull()) {
        throw IPCException("Too many messages are queued for the broker");
    }
    if (isKept) {
        if (!enqueue(message, false)) {
            outbox_.dropRefused();
            throw IPCException("The broker does not accept the message on \"" + std::string(message.topic) + "\"");
        }
        return true;
    }
    const int result = link_->publish(message, false, nullptr);
    noteWritten(sizeOf(message));
    if (result != MOSQ_ERR_SUCCESS && !isConnectionFailure(result)) {
        throw IPCException(std::string("Cannot publish: ") + mosquitto_strerror(result));
    }
    return result == MOSQ_ERR_SUCCESS;
}

bool Connection::enqueue(const Message& message, bool retain) {
    Outbox::Entry& entry = outbox_.add(message, retain);
    if (isUp()) send(entry);
    return entry.identifier != Outbox::Entry::refused;
}

void Connection::send(Outbox::Entry& entry) {
    const Message message = entry.message();
    const int result = link_->publish(message, entry.retain, &entry.identifier);
    noteWritten(sizeOf(message));
    if (result == MOSQ_ERR_SUCCESS || isConnectionFailure(result)) return;
    // It can never be sent, so it must not block later messages.
    dbg::Debug::error() << "Cannot publish on " << entry.topic << ": " << mosquitto_strerror(result) << std::endl;
    entry.identifier = Outbox::Entry::refused;
}

/// libmosquitto writes at once; the network thread writes the rest when the socket is full.
void Connection::noteWritten(std::size_t bytes) {
    if (!link_->hasPendingWrites()) {
        outbox_.noteAllSent();
        return;
    }
    outbox_.noteUnsent(bytes);
    waker_.wake();
}

Congestion Connection::congestion() {
    const common::LockGuard lock(mutex_);
    return outbox_.congestion();
}

std::size_t Connection::outstanding() {
    const common::LockGuard lock(mutex_);
    return isUp() ? outbox_.unsent() + outbox_.size() : 0;
}

// ---- reading on a caller's thread ----

bool Connection::serve(Clock::time_point until, const std::function<Awaited()>& awaited) {
    const common::LockGuard lock(mutex_);
    if (link_) link_->uncork();
    if (isServedByCaller_ || state_ != State::ready || link_->isOver()) return false;
    isServedByCaller_ = true;
    const Link* const link = link_.get();
    const auto isUsable = [&]() REQUIRES(mutex_) {
        return state_ == State::ready && link_.get() == link && !link->isOver();
    };
    bool mayLeaveInput = false;
    Awaited still = awaited();
    while (still == Awaited::response && isUsable()) {
        short events = 0;
        {
            const common::UnlockGuard unlocked(mutex_);
            events = callerWait_.wait(until);
        }
        if (events != 0) mayLeaveInput = true;
        if (events != 0 && isUsable()) {
            still = serveRound(events, awaited, mayLeaveInput);
        } else {
            still = awaited();
        }
        if (still == Awaited::response && Clock::now() >= until) break;
    }
    isServedByCaller_ = false;
    // Only this thread was told of what is left. The end of the connection counts as input.
    if (mayLeaveInput && callerWait_.ready() != 0) {
        inputLeft_ = true;
        waker_.wake();
    }
    return true;
}

/// Reads one round; returns what is still awaited.
Awaited Connection::serveRound(short events, const std::function<Awaited()>& awaited, bool& mayLeaveInput) {
    link_->beginRound();
    mayLeaveInput = !serveLink(callerWait_, events);
    const Awaited still = awaited();
    // The acknowledgement of the last packet may wait for the next request to carry it.
    const bool expectsNothing = still == Awaited::nothing && outbox_.isEmpty() && subscriptions_.isSettled();
    constexpr short noEvents = 0;
    link_->endRound(expectsNothing ? noEvents : events);
    // The rest is the network thread's: to write more, or to replace a link that has ended.
    if (link_->isOver() || link_->hasPendingWrites()) waker_.wake();
    return still;
}

// ---- subscriptions ----

std::uint32_t Connection::subscribe(const std::string& filter, int qualityOfService, int retained,
                                    const std::function<void(std::uint32_t)>& registered) {
    requireFilter(filter);
    const common::LockGuard lock(mutex_);
    const bool isNamed = static_cast<bool>(registered);
    const std::uint32_t identifier = subscriptions_.add(filter, qualityOfService, retained, isNamed);
    if (registered) registered(identifier);
    if (isUp()) sendSubscription(identifier);
    return identifier;
}

void Connection::sendSubscription(std::uint32_t identifier) {
    const Subscriptions::Subscription& wanted = *subscriptions_.find(identifier);
    int message = 0;
    const int result = link_->subscribe(wanted.filter, wanted.qualityOfService, wanted.retained,
                                        wanted.isNamed ? identifier : 0, &message);
    noteWritten(0);
    if (result == MOSQ_ERR_SUCCESS) {
        subscriptions_.sent(identifier, message);
    } else if (!isConnectionFailure(result)) {
        subscriptions_.refuse(identifier, mosquitto_strerror(result));
    }
}

void Connection::waitForSubscription(std::uint32_t identifier) {
    const common::LockGuard lock(mutex_);
    const auto decided = [this, identifier]() REQUIRES(mutex_) {
        const auto* const wanted = subscriptions_.find(identifier);
        return isClosing() || wanted == nullptr || wanted->answer != Subscriptions::Answer::pending;
    };
    const bool inTime = changed_.waitUntil(mutex_, Clock::now() + connectTimeout, decided);
    const auto* const wanted = subscriptions_.find(identifier);
    if (!inTime || isClosing() || wanted == nullptr) throw IPCException("The broker does not answer");
    Subscriptions::requireGranted(*wanted);
}

void Connection::unsubscribe(std::uint32_t identifier) {
    const common::LockGuard lock(mutex_);
    const auto filter = subscriptions_.remove(identifier);
    if (!filter || !isUp()) return;
    link_->unsubscribe(*filter);
    noteWritten(0);
}

}  // namespace ipc
