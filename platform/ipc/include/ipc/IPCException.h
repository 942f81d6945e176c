// Exceptions of the bus client; `what()` is the reason in plain words.
#pragma once

#include <stdexcept>

namespace ipc {

class IPCException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// The broker or the requested service is known to be offline. The request was not sent, or can no longer be answered.
class IPCOfflineException : public IPCException {
 public:
    using IPCException::IPCException;
};

/// The service went offline after the request was sent. Whether the request was executed is unknown.
class IPCServiceLostException : public IPCOfflineException {
 public:
    using IPCOfflineException::IPCOfflineException;
};

/// No response came in time. Whether the request was executed is unknown.
class IPCTimeoutException : public IPCException {
 public:
    using IPCException::IPCException;
};

/// The connection was lost between the request and its response. Whether the request was executed is unknown.
class IPCInterruptedException : public IPCTimeoutException {
 public:
    using IPCTimeoutException::IPCTimeoutException;
};

}  // namespace ipc
