#include "ConnectionLoss.h"

#include <utility>

#include "debug/Debug.h"

namespace ipc {

ConnectionLoss::ConnectionLoss(Logging logging, std::string clientId)
    : logging_(logging), clientId_(std::move(clientId)) {}

void ConnectionLoss::connected() {
    lastLoggedFailure_.clear();
    if (logging_ == Logging::on) dbg::Debug::info() << "Connected to the broker" << std::endl;
}

void ConnectionLoss::lost(BackOff::Loss loss, const std::string& cause) {
    if (logging_ == Logging::off) return;
    switch (loss) {
        case BackOff::Loss::takeover:
            dbg::Debug::error() << "Another " << clientId_
                                << " is connected to the broker and has taken over from this one" << std::endl;
            break;
        case BackOff::Loss::suspected:
            dbg::Debug::warning() << "The broker closed the connection; perhaps another " << clientId_
                                  << " is connected and has taken over from this one" << std::endl;
            break;
        case BackOff::Loss::plain:
            dbg::Debug::warning() << "Connection to the broker lost: " << cause << std::endl;
            break;
    }
}

void ConnectionLoss::failed(const Address& broker, const std::string& cause) {
    if (logging_ == Logging::off || cause == lastLoggedFailure_) return;
    lastLoggedFailure_ = cause;
    dbg::Debug::warning() << "Cannot connect to the broker at " << broker.host << ":" << broker.port << ": " << cause
                          << "; retrying" << std::endl;
}

}  // namespace ipc
