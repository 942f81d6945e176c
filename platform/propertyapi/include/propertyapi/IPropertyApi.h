// The client of the property service, which keeps every setting and state of the phone as key and text.
//
// Threads: every operation may be called from any thread and blocks it until the answer is there, 5 s at most. Once a
// call has timed out, all calls wait 1 s each until an answer comes. A call fails at once while the service is known to
// be offline, except under PatientCalls. A call whose connection breaks is retried when it is back within its time, a
// set only if reading back shows that it was not carried out. All throw a PropertyException: see PropertyExceptions.h.
#pragma once

#include <string>
#include <vector>

#include "propertyapi/PropertyExceptions.h"

namespace propertyapi {

struct Property {
    std::string key;
    std::string value;
};

/// One page of a listing, sorted by key. `next` is the key to ask for with `after` when there is more, else empty.
struct PropertyPage {
    std::vector<Property> properties;
    std::string next;
};

class IPropertyApi {
 public:
    virtual ~IPropertyApi() = default;

    /// The value of the key. Throws PropertyNotFoundException for a key that the service does not know.
    virtual std::string get(const std::string& key) = 0;

    /// Writes the value; when it returns, the value is kept.
    virtual void set(const std::string& key, const std::string& value) = 0;

    /// The same, naming the writer: `source` stands in the change that subscribers see.
    virtual void set(const std::string& key, const std::string& source, const std::string& value) = 0;

    /// The properties whose key begins with `prefix`, from the key after `after` on; 1,000 at most.
    virtual PropertyPage list(const std::string& prefix, const std::string& after) = 0;

    /// The process is shutting down: from now on a call waits 2 s at most, one in flight 2 s from now, and nobody waits
    /// for a service to come back. Once a call has timed out, before or after this, calls throw
    /// PropertyTimeoutException at once until an answer comes. Never blocks; repeatable.
    virtual void beginShutdown() = 0;
};

}  // namespace propertyapi
