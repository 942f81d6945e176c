// Why the property service did not do what it was asked. `what()` names the key and the reason.
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

/// The service did not understand the request ("bad-request"), or its answer could not be understood.
class PropertyProtocolException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The store refused the write; the old value stands ("storage").
class PropertyStorageException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// No answer within the time-out. A set may still have been carried out: read it back.
class PropertyTimeoutException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

/// The bus or the property service is away. Nothing was written, unless it went while the set was in hand: read it
/// back.
class PropertyOfflineException : public PropertyException {
 public:
    using PropertyException::PropertyException;
};

}  // namespace propertyapi
