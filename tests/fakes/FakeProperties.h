// The property service as a map, for tests: what it holds is set directly, what is written to it is recorded in order.
//
// Threads: everything may be called from any thread.
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

/// One accepted or refused write. `source` is "" for the writer that names none.
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

    /// `values` are the keys that the service knows; any other is not found.
    explicit FakeProperties(Values values = {});

    std::string get(const std::string& key) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, const std::string& source, const std::string& value) override;
    propertyapi::PropertyPage list(const std::string& prefix, const std::string& after) override;
    void beginShutdown() override;

    /// Makes the key known with this value, as the phone's owner would: it is no write.
    void put(const std::string& key, const std::string& value);
    /// The value, or nothing for an unknown key; it is no read.
    std::optional<std::string> value(const std::string& key) const;

    /// The writes that were accepted, in order.
    std::vector<PropertyWrite> writes() const;
    /// Those of one key: the values, in order.
    std::vector<std::string> writesTo(const std::string& key) const;
    /// The keys that were read, in order.
    std::vector<std::string> reads() const;
    /// The keys of the calls that were made under PatientCalls, in order: reads, and writes even if refused.
    std::vector<std::string> patientCalls() const;
    void forgetCalls();
    bool shutdownBegun() const;

    /// From now on the n-th call of that kind (1 is the next) throws PropertyOfflineException, once.
    void failCall(Call kind, std::size_t n);
    /// Every call that names the key throws PropertyOfflineException until `restoreKey`.
    void failKey(const std::string& key);
    void restoreKey(const std::string& key);
    /// Every call throws PropertyOfflineException until it is set back.
    void setOffline(bool offline);

    /// Called outside the lock after each accepted write: what the service would publish.
    void onWrite(std::function<void(const PropertyWrite&)> listener);

    /// Waits until the key was written with this value since the last `forgetCalls`. False when it never was.
    bool waitForWrite(const std::string& key, const std::string& value,
                      std::chrono::milliseconds patience = std::chrono::seconds(20)) const;
    /// Waits until `done` holds of the writes so far.
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
    std::vector<std::string> patientCalls_;
    bool shutdownBegun_ = false;
    std::map<Call, std::size_t> failingCall_;  // how many calls away
    std::map<std::string, bool> failingKeys_;
    bool offline_ = false;
    std::function<void(const PropertyWrite&)> listener_;
};

}  // namespace fakes
