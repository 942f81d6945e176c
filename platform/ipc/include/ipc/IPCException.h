// What the bus client throws; `what()` is the reason as a person would read it.
#pragma once

#include <stdexcept>

namespace ipc {

class IPCException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// The broker, or the service that a request is for, is known to be away. The request was not sent, or the answer can
/// no longer come.
class IPCOfflineException : public IPCException {
 public:
    using IPCException::IPCException;
};

/// The service went offline after the request was sent. Whether the request was carried out is not known.
class IPCServiceLostException : public IPCOfflineException {
 public:
    using IPCOfflineException::IPCOfflineException;
};

/// No answer came in time. Whether the request was carried out is not known.
class IPCTimeoutException : public IPCException {
 public:
    using IPCException::IPCException;
};

/// The connection broke between the request and its answer: another kind of not knowing, known at once.
class IPCInterruptedException : public IPCTimeoutException {
 public:
    using IPCTimeoutException::IPCTimeoutException;
};

}  // namespace ipc
