// The server side of `IIPCClient::request`: answers requests on some topics, keeps a retained presence, and publishes
// notifications. One thread reads requests, calls the handler and sends the result: handing requests to another thread
// would cost latency.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace ipc {

/// One request as received. Without a response topic it is executed and not answered.
struct ServiceRequest {
    std::string topic;
    std::string payload;
    std::string responseTopic;
    std::string correlationData;
    int qualityOfService = 0;
};

/// Messages are sent strictly in list order: if the process is killed in between, no later message has been sent.
struct OutgoingMessage {
    std::string topic;  // empty: not sent
    std::string payload;
    std::string correlationData;  // empty: none
    int qualityOfService = 0;
};

/// What a supervisor wants to know. Both are called on the thread that handles requests, and must not block.
struct ServiceEvents {
    std::function<void()> online;  // the broker has accepted "online": requests are answered from now on
    std::function<void()> alive;   // the thread is not stuck; at least every 40 s, also while the broker is away
};

class IIPCService {
 public:
    /// Called on the service's thread with up to 64 pending requests, oldest first, so that a handler can batch its
    /// work; returns the messages to send. It may wait for a disk, but never for the bus: nothing is read while it
    /// runs, and after 90 s the broker drops the connection. An exception that escapes it is logged; its requests stay
    /// unanswered. It is not called again before the broker has taken most of the messages that it returned.
    using Handler = std::function<std::vector<OutgoingMessage>(const std::vector<ServiceRequest>&)>;

    virtual ~IIPCService() = default;

    /// Connects to the broker at `host` ("localhost:1883"), publishes "online" on `statusTopic` (retained; "offline" is
    /// the last will) once all `topics` are subscribed, and serves until `stop`. Returns at once. While the broker is
    /// away it retries until `stop` and does not throw.
    virtual void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
                       Handler handler) = 0;

    /// Sends the messages that the handler has returned and waits at most 10 s until the broker has taken them, less if
    /// it takes none for half a second. Then publishes "offline", closes the connection and ends the thread. Drops
    /// requests that the handler has not seen. Waits for a running handler.
    virtual void stop() = 0;
};

}  // namespace ipc
