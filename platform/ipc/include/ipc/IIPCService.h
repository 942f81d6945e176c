// The other end of `IIPCClient::request`: a program that answers requests on some topics, keeps a retained presence,
// and publishes notifications. One thread reads requests, calls the handler and sends what it returns, so that a
// request is handed to nobody on its way.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace ipc {

/// One request as it came. Without a response topic it is carried out and not answered.
struct ServiceRequest {
    std::string topic;
    std::string payload;
    std::string responseTopic;
    std::string correlationData;
    int qualityOfService = 0;
};

/// What goes out, in the order of the list. A message leaves only after those before it: a process that is killed in
/// between has sent nothing that comes later in the list.
struct OutgoingMessage {
    std::string topic;  // empty: it is not sent
    std::string payload;
    std::string correlationData;  // empty: none
    int qualityOfService = 0;
};

class IIPCService {
 public:
    /// Called on the service's thread with requests that wait, 64 at most, oldest first, so that a handler can group
    /// its work; returns what is to be sent. It may wait for a disk, but never for the bus: nothing is read while it
    /// runs, and after a minute and a half the broker gives the service up. An exception that leaves it is logged; its
    /// requests stay unanswered. It is not called again before the broker has taken most of what it returned.
    using Handler = std::function<std::vector<OutgoingMessage>(const std::vector<ServiceRequest>&)>;

    virtual ~IIPCService() = default;

    /// Connects to the broker at `host` ("localhost:1883"), announces "online" on `statusTopic` (retained; "offline" is
    /// the last will) once all `topics` are subscribed, and serves until `stop`. Keeps trying for ever when the broker
    /// is away; never throws for that. Returns at once.
    virtual void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
                       Handler handler) = 0;

    /// Sends what the handler has returned, waits until the broker has taken it, as long as it takes something every
    /// half second and 10 s at most, says "offline", closes the connection and ends the thread. Requests not yet handed
    /// over are dropped. Waits for a handler that runs.
    virtual void stop() = 0;
};

}  // namespace ipc
