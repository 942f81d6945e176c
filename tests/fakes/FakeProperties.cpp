#include "fakes/FakeProperties.h"

#include <ostream>

#include "propertyapi/RecoveryScope.h"

namespace fakes {

namespace {

constexpr std::size_t pageSize = 1000;

[[noreturn]] void offline(const std::string& key) {
    throw propertyapi::PropertyOfflineException("Property '" + key + "': the property service is offline");
}

[[noreturn]] void notFound(const std::string& key) {
    throw propertyapi::PropertyNotFoundException("Property '" + key + "': not found");
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const PropertyWrite& write) {
    return stream << write.key << " := '" << write.value << "' by '" << write.source << "'";
}

FakeProperties::FakeProperties(Values values) : values_(std::move(values)) {}

void FakeProperties::check(Call kind, const std::string& key) {
    if (propertyapi::RecoveryScope::onThisThread()) recoveryCalls_.push_back(key);
    if (const auto failing = failingCall_.find(kind); failing != failingCall_.end() && --failing->second == 0) {
        failingCall_.erase(failing);
        offline(key);
    }
    if (offline_ || failingKeys_.count(key) != 0) offline(key);
}

std::string FakeProperties::get(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    reads_.push_back(key);
    check(Call::get, key);
    const auto known = values_.find(key);
    if (known == values_.end()) notFound(key);
    return known->second;
}

void FakeProperties::set(const std::string& key, const std::string& value) { set(key, "", value); }

void FakeProperties::set(const std::string& key, const std::string& source, const std::string& value) {
    const PropertyWrite write{key, source, value};
    std::function<void(const PropertyWrite&)> listener;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        check(Call::set, key);
        const auto known = values_.find(key);
        if (known == values_.end()) notFound(key);
        known->second = value;
        writes_.push_back(write);
        listener = listener_;
        written_.notify_all();
    }
    if (listener) listener(write);
}

propertyapi::PropertyPage FakeProperties::list(const std::string& prefix, const std::string& after) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (offline_) offline(prefix);
    propertyapi::PropertyPage page;
    for (const auto& [key, value] : values_) {
        if (key.compare(0, prefix.size(), prefix) != 0 || (!after.empty() && key <= after)) continue;
        if (page.properties.size() == pageSize) {
            page.next = page.properties.back().key;
            break;
        }
        page.properties.push_back({key, value});
    }
    return page;
}

void FakeProperties::put(const std::string& key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    values_[key] = value;
}

std::optional<std::string> FakeProperties::value(const std::string& key) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = values_.find(key);
    return known == values_.end() ? std::nullopt : std::optional<std::string>(known->second);
}

std::vector<PropertyWrite> FakeProperties::writes() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return writes_;
}

std::vector<std::string> FakeProperties::writesTo(const std::string& key) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> values;
    for (const PropertyWrite& write : writes_) {
        if (write.key == key) values.push_back(write.value);
    }
    return values;
}

std::vector<std::string> FakeProperties::reads() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
}

std::vector<std::string> FakeProperties::recoveryCalls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return recoveryCalls_;
}

void FakeProperties::beginShutdown() {
    const std::lock_guard<std::mutex> lock(mutex_);
    shutdownBegun_ = true;
}

bool FakeProperties::shutdownBegun() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return shutdownBegun_;
}

void FakeProperties::forgetCalls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    writes_.clear();
    reads_.clear();
    recoveryCalls_.clear();
}

void FakeProperties::failCall(Call kind, std::size_t n) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failingCall_[kind] = n;
}

void FakeProperties::failKey(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failingKeys_[key] = true;
}

void FakeProperties::restoreKey(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failingKeys_.erase(key);
}

void FakeProperties::setOffline(bool offline) {
    const std::lock_guard<std::mutex> lock(mutex_);
    offline_ = offline;
}

void FakeProperties::onWrite(std::function<void(const PropertyWrite&)> listener) {
    const std::lock_guard<std::mutex> lock(mutex_);
    listener_ = std::move(listener);
}

bool FakeProperties::waitForWrite(const std::string& key, const std::string& value,
                                  std::chrono::milliseconds patience) const {
    return waitForWrites(
        [&](const std::vector<PropertyWrite>& writes) {
            for (const PropertyWrite& write : writes) {
                if (write.key == key && write.value == value) return true;
            }
            return false;
        },
        patience);
}

bool FakeProperties::waitForWrites(const std::function<bool(const std::vector<PropertyWrite>&)>& done,
                                   std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return written_.wait_for(lock, patience, [&] { return done(writes_); });
}

}  // namespace fakes
