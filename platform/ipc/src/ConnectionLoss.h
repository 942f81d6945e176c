// What a connection that has nobody to tell logs about its returns, its losses, and why it cannot connect: each reason
// once, until the next return. Used by the connection's network thread only.
#pragma once

#include <string>

#include "Address.h"
#include "BackOff.h"

namespace ipc {

class ConnectionLoss {
 public:
    /// A silent one logs nothing, for a connection whose owner is told.
    enum class Voice { silent, speaks };

    ConnectionLoss(Voice voice, std::string clientId);

    void connected();
    void lost(BackOff::Loss loss, const std::string& cause);
    void failed(const Address& broker, const std::string& cause);

 private:
    const Voice voice_;
    const std::string clientId_;
    std::string lastLoggedFailure_;
};

}  // namespace ipc
