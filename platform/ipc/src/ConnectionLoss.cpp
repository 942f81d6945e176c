// How Connection tells why a connection was lost, or why there is none. On its network thread.
#include <cerrno>
#include <chrono>

#include "Connection.h"
#include "Socket.h"
#include "debug/Debug.h"

namespace ipc {

namespace {

using std::chrono::milliseconds;

// A broker that dies closes its connections a moment before, or after, it stops listening.
constexpr milliseconds dyingTime{50};

}  // namespace

void Connection::onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
    const int systemError = errno;
    auto& connection = *static_cast<Connection*>(self);
    if (reason == MQTT_RC_SESSION_TAKEN_OVER) {
        connection.loss_ = BackOff::Loss::takeover;
        connection.fail("another client named \"" + connection.options_.clientId + "\" has taken over the session");
        return;
    }
    const bool reset = systemError == 0 || systemError == ECONNRESET || systemError == EPIPE;
    connection.closedByPeer_ = reason == MOSQ_ERR_CONN_LOST || (reason == MOSQ_ERR_ERRNO && reset);
    connection.fail(connection.connackSeen_ ? lossText(reason, systemError) : noBrokerText(reason, systemError));
}

/// Not every broker tells a client that it gives its session to another one: some close the connection without a word.
/// One that dies or is restarted does so too, but does not listen all the while.
void Connection::suspectTakeover(std::unique_lock<std::mutex>& lock, const std::string& numericAddress) {
    if (!closedByPeer_) return;
    for (const milliseconds pause : {milliseconds(0), dyingTime}) {
        if (changed_.wait_for(lock, pause, [this] { return closing_; })) return;
        drain(wakeup_.get());
        lock.unlock();
        const auto refusal = probe(numericAddress, address_.port, Clock::now() + dyingTime, wakeup_.get());
        lock.lock();
        if (!refusal || !refusal->empty()) return;
    }
    loss_ = BackOff::Loss::suspected;
    failure_ = "the broker closed the connection; perhaps another client named \"" + options_.clientId +
               "\" has taken over the session";
}

void Connection::afterLoss() {
    if (options_.logsItself && loss_ == BackOff::Loss::takeover) {
        dbg::Debug::error() << "Another " << options_.clientId
                            << " is connected to the broker and has taken over from this one" << std::endl;
    } else if (options_.logsItself && loss_ == BackOff::Loss::suspected) {
        dbg::Debug::warning() << "The broker closed the connection; perhaps another " << options_.clientId
                              << " is connected and has taken over from this one" << std::endl;
    } else if (options_.logsItself) {
        dbg::Debug::warning() << "Connection to the broker lost: " << failure_ << std::endl;
    }
    listener_.connectionLost(failure_);
    changed_.notify_all();
}

void Connection::tellFailure() {
    if (!options_.logsItself || failure_ == toldFailure_) return;
    toldFailure_ = failure_;
    dbg::Debug::warning() << "Cannot connect to the broker at " << address_.host << ":" << address_.port << ": "
                          << failure_ << "; trying again" << std::endl;
}

}  // namespace ipc
