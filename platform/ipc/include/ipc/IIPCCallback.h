// What the bus client tells its owner. All three run on the bus client's delivery threads, never on its network
// thread: they may block and may call the bus client. An exception that leaves one is logged and dropped.
#pragma once

#include <string>

namespace ipc {

class IIPCCallback {
 public:
    virtual ~IIPCCallback() = default;

    /// The connection is gone; the client is already trying to get it back. If another client has connected under the
    /// same name, the cause says so, with a "perhaps" where the broker gave no reason.
    virtual void connectionLost(const std::string& cause) = 0;

    /// A message came in for a subscription of this callback. One subscription delivers in order, on a thread of its
    /// own; different subscriptions deliver side by side.
    virtual void messageArrived(const std::string& topic, const std::string& content) = 0;

    /// The broker has acknowledged a message that was published with quality of service 1.
    virtual void deliveryComplete(const std::string& topic) = 0;
};

}  // namespace ipc
