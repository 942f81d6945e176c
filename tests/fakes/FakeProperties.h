// A property service in memory: the test sets its values directly, and calls are recorded in order. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "propertyapi/IPropertyApi.h"

namespace fakes {

/// A write. `source` is "" if the writer gave none.
struct PropertyWrite {
    std::string key;
    std::string source;
    std::string value;
};

inline bool operator==(const PropertyWrite& a, const PropertyWrite& b) {
    return a.key == b.key && a.source == b.source && a.value == b.value;
}
std::ostream& operator<<(std::ostream& stream, const PropertyWrite& write);

class FakeProperties : public propertyapi::IPropertyApi {
 public:
    using Values = std::map<std::string, std::string>;
    enum class Call { get, set };

    /// The service has exactly the keys of `values`.
    explicit FakeProperties(Values values = {});

    std::string get(const std::string& key) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, const std::string& source, const std::string& value) override;
    propertyapi::PropertyPage list(const std::string& prefix, const std::string& after) override;
    void beginShutdown() override;

    /// Sets the value, and adds the key if necessary, without recording a write.
    void put(const std::string& key, const std::string& value);
    /// The value, or nothing for an unknown key; not recorded as a read.
    std::optional<std::string> value(const std::string& key) const;

    /// Accepted writes, in order.
    std::vector<PropertyWrite> writes() const;
    /// The values written to one key, in order.
    std::vector<std::string> writesTo(const std::string& key) const;
    /// Keys read, in order.
    std::vector<std::string> reads() const;
    /// Keys of the calls made under RecoveryScope, in order: reads, and writes even if refused.
    std::vector<std::string> recoveryCalls() const;
    void forgetCalls();
    bool shutdownBegun() const;

    /// The n-th call of that kind from now on (1 is the next one) throws PropertyOfflineException, once.
    void failCall(Call kind, std::size_t n);
    /// Every call for the key throws PropertyOfflineException until `restoreKey`.
    void failKey(const std::string& key);
    void restoreKey(const std::string& key);
    /// While offline, every call throws PropertyOfflineException.
    void setOffline(bool offline);

    /// `listener` is called after each accepted write, without the lock, as the
    /// service would publish the change.
    void onWrite(std::function<void(const PropertyWrite&)> listener);

    /// Waits until this value was written to the key since the last `forgetCalls`; returns false after `patience`.
    bool waitForWrite(const std::string& key, const std::string& value,
                      std::chrono::milliseconds patience = std::chrono::seconds(20)) const;
    /// Waits until `done` returns true for the writes so far; returns false after `patience`.
    bool waitForWrites(const std::function<bool(const std::vector<PropertyWrite>&)>& done,
                       std::chrono::milliseconds patience = std::chrono::seconds(20)) const;

 private:
    void check(Call kind, const std::string& key);

    mutable std::mutex mutex_;
    mutable std::condition_variable written_;
    // Guarded by mutex_.
    Values values_;
    std::vector<PropertyWrite> writes_;
    std::vector<std::string> reads_;
    std::vector<std::string> recoveryCalls_;
    bool shutdownBegun_ = false;
    std::map<Call, std::size_t> failingCall_;  // calls left until the failing one
    std::map<std::string, bool> failingKeys_;
    bool offline_ = false;
    std::function<void(const PropertyWrite&)> listener_;
};

}  // namespace fakes
