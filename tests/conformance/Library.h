// Where the checks get their objects from: the libraries that the program is linked with. A program that wants to see
// the checks fail sets other functions before it calls `run`.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ipc/IPCFactory.h"

namespace conformance {

struct BusLibrary {
    std::function<std::shared_ptr<ipc::IIPCClient>(const std::string& name, const std::string& host, bool transient)>
        client = ipc::IPCFactory::createInstanceShared;
    std::function<std::unique_ptr<ipc::IIPCService>(const std::string& name, ipc::ServiceEvents events)> service =
        ipc::IPCFactory::createService;
};

inline BusLibrary& busLibrary() {
    static BusLibrary library;
    return library;
}

}  // namespace conformance
