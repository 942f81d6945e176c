// The property client over a bus client: time-outs and retries of each call.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/ThreadSafety.h"
#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

class PropertyApi final : public IPropertyApi {
 public:
    PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName);

    std::string get(const std::string& key) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, const std::string& source, const std::string& value) override;
    PropertyPage list(const std::string& prefix, const std::string& after) override;
    void beginShutdown() override;

 private:
    using Clock = std::chrono::steady_clock;

    /// One call of the interface, which may take several requests.
    struct Call {
        std::string key;
        Clock::time_point begun;
        Clock::time_point deadline;
        bool patient = false;
        bool deadlineExtended = false;  // because the service came back
        std::string lossReason;         // why the last answer was lost
    };

    Call begin(const std::string& key);
    std::string ask(Call& call, const char* topic, const std::string& payload);
    std::optional<std::string> request(Call& call, const char* topic, const std::string& payload);
    bool waitForRecovery(Call& call);
    Clock::time_point deadlineOf(const Call& call);
    void noteTimeout();

    bool isUnresponsive() const REQUIRES(mutex_);

    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::string clientName_;

    common::Mutex mutex_;
    std::optional<std::uint64_t> answersAtTimeout_ GUARDED_BY(mutex_);  // answers received before the last time-out
    std::optional<Clock::time_point> shutdownBegun_ GUARDED_BY(mutex_);
};

}  // namespace propertyapi
