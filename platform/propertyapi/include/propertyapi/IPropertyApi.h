// The client of the property service, which keeps every setting and state of the phone as key and text.
//
// Threads: every operation may be called from any thread and blocks until the response is there, at most 5 s. Once a
// call has timed out, all calls wait only 1 s each until a response comes. While the service is known to be offline,
// calls fail at once, except under RecoveryScope. If the connection is lost and comes back in time, a call is retried;
// a set only if reading the value back shows that it was not executed. All operations throw PropertyException: see
// PropertyExceptions.h.
#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include "propertyapi/PropertyExceptions.h"

namespace propertyapi {

struct Property {
    std::string key;
    std::string value;
};

/// One page of a listing, sorted by key. `next` is the `after` of the next page; empty on the last page.
struct PropertyPage {
    std::vector<Property> properties;
    std::string next;
};

/// What `get` of one key has returned or thrown.
struct Reading {
    std::string text;
    std::exception_ptr error;

    /// The value of the key. Throws what `get` would throw.
    const std::string& value() const {
        if (error) std::rethrow_exception(error);
        return text;
    }
};

class IPropertyApi {
 public:
    virtual ~IPropertyApi() = default;

    /// The value of the key. Throws PropertyNotFoundException if the service does not know the key.
    virtual std::string get(const std::string& key) = 0;

    /// `get` of several keys, in their order. One call: all keys together wait as long as one. Throws no
    /// PropertyException; the readings have them. The default reads one key after the other.
    virtual std::vector<Reading> getEach(const std::vector<std::string>& keys) {
        std::vector<Reading> readings(keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            try {
                readings[i].text = get(keys[i]);
            } catch (const std::exception&) {
                readings[i].error = std::current_exception();
            }
        }
        return readings;
    }

    /// Writes the value; when it returns, the service has accepted the value.
    virtual void set(const std::string& key, const std::string& value) = 0;

    /// The same with a writer: subscribers see `source` in the change.
    virtual void set(const std::string& key, const std::string& source, const std::string& value) = 0;

    /// The properties whose key begins with `prefix` and sorts after `after`; at most 1,000.
    virtual PropertyPage list(const std::string& prefix, const std::string& after) = 0;

    /// The process is shutting down: from now on calls wait at most 2 s, those in flight at most 2 s from now, and no
    /// call waits for the service to come back. Once a call has timed out, before or after this, calls throw
    /// PropertyTimeoutException at once until a response comes. Never blocks; idempotent.
    virtual void beginShutdown() = 0;
};

}  // namespace propertyapi
