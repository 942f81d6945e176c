// The bus client: one connection to an MQTT v5 broker. After a connection loss it reconnects with back-off, subscribes
// again, and sends the messages accepted meanwhile.
//
// Topics are texts in UTF-8 of levels separated by "/". In a filter "+" stands for one level, and "#" at the end for
// any number of levels, none included. A payload has any bytes, up to 1 MiB at least.
//
// Threads: every operation may be called from any thread, but `disconnect` throws on a delivery thread, and the client
// must not be destroyed on one. One network thread reads, opens and closes the connection and never runs user code.
// Each subscription has its own delivery thread and a queue of 10,000 messages; when it is full, the oldest message is
// dropped with a warning. The connection events of each callback object have a thread and a queue of their own too.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ipc/IIPCCallback.h"

namespace ipc {

/// A request whose response is still to come. The client must outlive it; use and destroy it on the thread that made
/// it.
class IPCRequest {
 public:
    virtual ~IPCRequest() = default;

    /// Blocks and throws as IIPCClient::request does; the time-out runs since the request was begun. Call it once.
    virtual std::string response() = 0;
};

class IIPCClient {
 public:
    virtual ~IIPCClient() = default;

    /// Connects to the broker at `host` ("localhost", or with a port: "localhost:1884"; the default port is 1883) and
    /// returns once the broker has accepted the connection and acknowledged every subscription made so far. Waits at
    /// most 5 s. Throws IPCException if there is no broker or it refuses; the client is then disconnected.
    virtual void connect(const std::string& host) = 0;

    /// Unsubscribes everywhere and ends all deliveries: no callback runs once it has returned, and queued messages are
    /// dropped. Blocks while a callback is running. The connection stays open for requests in flight and closes when
    /// the client is destroyed.
    virtual void disconnect() = 0;

    /// Delivers messages on `topicFilter` to `callback`, which must outlive this client's deliveries (see disconnect).
    /// Before `connect` it only registers the subscription; afterwards it waits at most 5 s for the broker's
    /// acknowledgement. Throws IPCException if the broker refuses it or does not answer.
    virtual void subscribe(const std::string& topicFilter, IIPCCallback& callback) = 0;

    /// Sends one message with quality of service 0 or 1. Returns at once. While the broker is away, messages with
    /// quality 1 are kept until it is back, and messages with quality 0 are dropped. A message whose acknowledgement
    /// was lost is sent twice. Throws IPCException before connect, after disconnect, or if 10,000 messages are queued.
    virtual void publish(const std::string& topic, const std::string& payload, int qualityOfService) = 0;

    /// As `publish` with quality of service 0, for a message that is not urgent: it leaves together with the next
    /// message or request of this client, at most 200 ms later, so that the broker is not woken for it alone.
    /// The default sends it at once.
    virtual void publishSoon(const std::string& topic, const std::string& payload) { publish(topic, payload, 0); }

    /// Watches the retained presence ("online" or "offline") of a service on `statusTopic`. Call it before connect.
    virtual void watchPresence(const std::string& statusTopic) = 0;

    /// Sends a request to a service whose presence is watched on `statusTopic` and returns the response (MQTT v5
    /// response topic and correlation data, quality of service 0). Blocks for at most `timeout`, in which it waits up
    /// to 2 s for a reconnection. Never call it from code that the network thread waits for. Throws, each as soon as it
    /// is known:
    /// - IPCOfflineException: the broker has been away for more than 2 s, the service is "offline", or it has published
    ///   no presence within 1 s of the connection. Its subclass IPCServiceLostException: the service went offline after
    ///   the request was sent.
    /// - IPCTimeoutException: no response in time. Its subclass IPCInterruptedException: the connection was lost after
    ///   the request was sent. It is not sent again, and whether it was executed is unknown.
    virtual std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                                std::chrono::milliseconds timeout) = 0;

    /// The same without waiting: the request is sent, at the latest when a response is awaited (or 200 ms later), and
    /// its own response can be awaited later. So several requests take the time of one. Does not block; `response`
    /// throws the errors. The default makes the request when its response is awaited, and what cannot be sent yet is
    /// sent then: the service may receive requests in another order.
    virtual std::unique_ptr<IPCRequest> beginRequest(const std::string& topic, const std::string& payload,
                                                     const std::string& statusTopic, std::chrono::milliseconds timeout);

    // Implementations that make no requests may keep the defaults of the next three.

    /// Waits until the service watched on `statusTopic` is online, but no longer than `limit` after it went away, by
    /// publishing "offline" or by a lost connection to the broker. Returns whether it is online. Returns false at once
    /// if it never was online, or if requests are limited.
    virtual bool waitForService(const std::string& /*statusTopic*/, std::chrono::milliseconds /*limit*/) {
        return false;
    }

    /// The number of responses received so far, including those whose request had timed out.
    virtual std::uint64_t responsesReceived() const { return 0; }

    /// For shutdown: requests in flight return within `limit` from now, later ones wait at most `limit`, and
    /// waitForService no longer waits.
    virtual void limitRequests(std::chrono::milliseconds /*limit*/) {}
};

/// The default of beginRequest.
class DeferredRequest final : public IPCRequest {
 public:
    DeferredRequest(IIPCClient& client, std::string topic, std::string payload, std::string statusTopic,
                    std::chrono::milliseconds timeout)
        : client_(client),
          topic_(std::move(topic)),
          payload_(std::move(payload)),
          statusTopic_(std::move(statusTopic)),
          deadline_(std::chrono::steady_clock::now() + timeout) {}

    std::string response() override {
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - std::chrono::steady_clock::now());
        return client_.request(topic_, payload_, statusTopic_, std::max(left, milliseconds(0)));
    }

 private:
    IIPCClient& client_;
    const std::string topic_;
    const std::string payload_;
    const std::string statusTopic_;
    const std::chrono::steady_clock::time_point deadline_;
};

inline std::unique_ptr<IPCRequest> IIPCClient::beginRequest(const std::string& topic, const std::string& payload,
                                                            const std::string& statusTopic,
                                                            std::chrono::milliseconds timeout) {
    return std::make_unique<DeferredRequest>(*this, topic, payload, statusTopic, timeout);
}

}  // namespace ipc
