// The bus client: one connection to an MQTT v5 broker. It keeps itself connected: after a cut it reconnects with
// back-off, subscribes again, and sends what it accepted meanwhile.
//
// Threads: every operation may be called from any thread; `disconnect` throws on a delivery thread, and the last owner
// must not let go of the client on one. One network thread
// reads, opens and closes, and never runs user code. Each subscription has a bounded queue (10,000 messages, beyond it
// the oldest goes with a warning) and a delivery thread of its own, and so have the connection events of each callback
// object.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "ipc/IIPCCallback.h"

namespace ipc {

class IIPCClient {
 public:
    virtual ~IIPCClient() = default;

    /// Connects to the broker at `host` ("localhost", or with a port: "localhost:1884"; the default port is 1883) and
    /// returns once the broker has accepted the connection and acknowledged every subscription made so far. Waits 5 s
    /// at most. Throws IPCException if there is no broker or it refuses; the client is then as after `disconnect`.
    virtual void connect(const std::string& host) = 0;

    /// Takes back all subscriptions and ends all deliveries: no callback runs once it has returned, and what was still
    /// queued is dropped. Blocks while a callback is running. The connection itself stays for requests in hand
    /// and closes when the client is destroyed.
    virtual void disconnect() = 0;

    /// Delivers messages on `topicFilter` to `callback`, which must outlive this client's deliveries (see
    /// disconnect). Made before the connection it is sent with it; made later it waits for the acknowledgement, 5 s at
    /// most. Throws IPCException when the broker refuses it or does not answer.
    virtual void subscribe(const std::string& topicFilter, IIPCCallback& callback) = 0;

    /// Sends one message, quality of service 0 or 1. Returns at once; a message with quality 1 that was accepted while
    /// the broker is away is sent when it is back (twice, when a cut took the acknowledgement); one with quality 0 is
    /// dropped then. Throws IPCException when there was no connect yet, after
    /// disconnect, or when 10,000 messages wait already.
    virtual void publish(const std::string& topic, const std::string& payload, int qualityOfService) = 0;

    /// Watches the retained presence ("online" or "offline") that a service keeps on `statusTopic`. Before connect.
    virtual void watchPresence(const std::string& statusTopic) = 0;

    /// Asks a service whose presence is watched on `statusTopic` and returns its answer (MQTT v5 response topic and
    /// correlation data, quality of service 0). Blocks the caller, `timeout` at most, and inside it outlives a
    /// reconnection of up to 2 s. Never call it from code that the network thread waits for.
    /// Throws IPCOfflineException at once when the broker has been away longer than that, or when the service says
    /// "offline", or has said nothing for a second after the connection; IPCServiceLostException, one of these, when
    /// the service went offline after the request was sent; IPCTimeoutException when no answer came;
    /// IPCInterruptedException at once when the connection broke after it was sent: it is never sent again by itself,
    /// and whether it was carried out is not known.
    virtual std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                                std::chrono::milliseconds timeout) = 0;

    // A client that makes no requests may keep the defaults of the next three.

    /// Waits until the service that is watched on `statusTopic` is online, but no longer than `patience` after it went:
    /// since it said "offline", or since the connection to the broker broke. Returns whether it is online; false at
    /// once if it never was, or once requests are limited.
    virtual bool waitForService(const std::string& /*statusTopic*/, std::chrono::milliseconds /*patience*/) {
        return false;
    }

    /// How many answers have come so far, including those that came after their request had timed out.
    virtual std::uint64_t answersReceived() const { return 0; }

    /// For the end of the process: requests in flight return within `limit` from now, later ones wait `limit` at most,
    /// and waitForService waits no longer.
    virtual void limitRequests(std::chrono::milliseconds /*limit*/) {}
};

}  // namespace ipc
