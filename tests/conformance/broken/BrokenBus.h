// A bus library that keeps all promises but one.
#pragma once

#include <memory>
#include <string>

#include "ipc/IPCFactory.h"

namespace broken {

/// The name of the promise that is broken; empty: none. Set once, at the start.
inline std::string& promise() {
    static std::string name;
    return name;
}
inline bool breaks(const char* name) { return promise() == name; }

std::shared_ptr<ipc::IIPCClient> createClient(const std::string& name, const std::string& host, bool transient);
std::unique_ptr<ipc::IIPCService> createService(const std::string& name, ipc::ServiceEvents events);

}  // namespace broken
