// Exceptions of the property client. `what()` has the key and the reason.
#pragma once

#include <stdexcept>

namespace propertyapi {

class PropertyException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// The catalogue knows no such key ("not-found").
class PropertyNotFoundException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The key's type, range or pattern does not allow the value ("invalid-value").
class PropertyInvalidValueException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The key may not be written by a client ("read-only").
class PropertyReadOnlyException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The service rejected the request as malformed ("bad-request"), or its response is malformed.
class PropertyProtocolException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The store refused the write; the old value is unchanged ("storage").
class PropertyStorageException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// No response within the time-out. A set may still have been executed: read the value back.
class PropertyTimeoutException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The bus or the property service is offline. A set that was in flight may have been executed: read the value back.
/// Any other call has written nothing.
class PropertyOfflineException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

}  // namespace propertyapi
