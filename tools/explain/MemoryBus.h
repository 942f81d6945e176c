// A bus client that answers requests itself, as the property service would, from values in memory. Any thread.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "catalogue/Catalogue.h"
#include "common/ThreadSafety.h"
#include "ipc/IIPCClient.h"
#include "propertyprotocol/Json.h"
#include "service/PropertyService.h"

namespace explain {

/// Begins with some values and stores nothing.
class MemoryStore final : public propertyservice::IStore {
 public:
    explicit MemoryStore(const std::map<std::string, std::string>& values) : values_(values) {}
    propertyservice::StoredValues load() override {
        propertyservice::StoredValues values;
        for (const auto& [key, value] : values_) values.add(key, value);
        return values;
    }
    void write(const std::vector<Entry>&) override {}
    void rebuild(const std::vector<Entry>&) override {}

 private:
    const std::map<std::string, std::string>& values_;
};

class MemoryBus final : public ipc::IIPCClient {
 public:
    /// Hears each accepted set with the value before it. Called on the thread that sets.
    using OnChange = std::function<void(const propertyprotocol::Change& change, const std::string& before)>;

    MemoryBus(const propertyservice::Catalogue& catalogue, propertyservice::IStore& store);

    /// Reports changes from now on.
    void report(OnChange onChange);

    /// Empty if the catalogue has no such key.
    std::string valueOf(const std::string& key);
    /// Keys that were read since `report`.
    std::set<std::string> keysRead() const;

    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        std::chrono::milliseconds timeout) override;

    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string&, const std::string&, int) override {}
    void watchPresence(const std::string&) override {}

 private:
    std::string ask(const std::string& topic, const std::string& payload, const std::string* before) REQUIRES(mutex_);
    std::string valueLocked(const std::string& key) REQUIRES(mutex_);

    mutable common::Mutex mutex_;
    propertyservice::PropertyService service_ GUARDED_BY(mutex_);
    OnChange onChange_ GUARDED_BY(mutex_);
    std::set<std::string> keysRead_ GUARDED_BY(mutex_);
};

}  // namespace explain
