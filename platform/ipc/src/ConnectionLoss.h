// Logs connections, losses and failed attempts of a connection. The reason of a failure is logged once until the next
// connection. Used by the connection's network thread only.
#pragma once

#include <string>

#include "Address.h"
#include "BackOff.h"

namespace ipc {

class ConnectionLoss {
 public:
    /// `off` is for a connection whose owner is told about losses.
    enum class Logging { off, on };

    ConnectionLoss(Logging logging, std::string clientId);

    void connected();
    void lost(BackOff::Loss loss, const std::string& cause);
    void failed(const Address& broker, const std::string& cause);

 private:
    const Logging logging_;
    const std::string clientId_;
    std::string lastLoggedFailure_;
};

}  // namespace ipc
