// The client of the property service, which keeps every setting and state of the phone as key and text.
//
// Threads: every operation may be called from any thread and blocks it until the answer is there, 5 s at most; it
// fails at once when the bus or the service is known to be away. A call whose connection breaks is made again when it
// is back within that time, a set only after reading back that it was not carried out. All throw a PropertyException:
// the types are in PropertyExceptions.h.
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
};

}  // namespace propertyapi
