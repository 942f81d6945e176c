// Callbacks of the bus client. All three run on its delivery threads, never on its network thread: they may block and
// may call the bus client. An exception that escapes a callback is logged and dropped.
#pragma once

#include <string>

namespace ipc {

class IIPCCallback {
 public:
    virtual ~IIPCCallback() = default;

    /// The connection was lost; the client is already reconnecting. If another client has connected under the same
    /// name, the cause says so, with a "perhaps" if the broker gave no reason.
    virtual void connectionLost(const std::string& cause) = 0;

    /// A message arrived for a subscription of this callback. One subscription delivers in order, on its own thread;
    /// different subscriptions deliver concurrently.
    virtual void messageArrived(const std::string& topic, const std::string& content) = 0;

    /// The broker has acknowledged a message published with quality of service 1.
    virtual void deliveryComplete(const std::string& topic) = 0;
};

}  // namespace ipc
