// A dispatcher with fakes for all that it uses: bus, property service, web server, timer, certificates.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Core/Dispatcher.h"
#include "fakes/FakeBus.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace tests {

class RecordingTimer : public zav::ProvisioningTimer {
 public:
    using ProvisioningTimer::ProvisioningTimer;
    void start(unsigned period) override {
        if (fails) throw std::runtime_error("cannot start a thread");
        periods.push_back(period);
    }
    std::vector<unsigned> periods;
    bool fails = false;
};

class RecordingSecurity : public zav::Security {
 public:
    using Security::Security;
    void reloadCertificates() override { record("reload"); }
    void notifySystemAboutNewCertificates() override { record("notify"); }
    std::vector<std::string> calls() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    std::atomic<bool> throws{false};  // throws an int

 private:
    void record(const char* call) {
        if (throws) throw 42;
        const std::lock_guard<std::mutex> lock(mutex_);
        calls_.emplace_back(call);
    }
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

class DispatcherFixture : public testing::Test {
 protected:
    DispatcherFixture()
        : dispatcher_(std::make_shared<zav::Dispatcher>(bus_, phone_.properties, timer_, phone_.curl, security_)) {
        phone_.curl.reset();
    }

    /// Starts listening and handling, with provisioning enabled and without a pass after boot-up.
    void begin() {
        dispatcher_->startListening();
        dispatcher_->startHandling();
        phone_.properties->put("State.Provisioning.OnBootUp", "done");
        dispatcher_->enableProvisioning();
        phone_.log.forget();
        phone_.properties->forgetCalls();
    }

    /// Makes the server hold its answer for the initial file until the returned gate opens.
    std::shared_ptr<fakes::Gate> holdPass() {
        auto gate = std::make_shared<fakes::Gate>();
        server_.on("/provisioning.xml", fakes::HttpAnswer::error(404).heldBy(gate));
        phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/"));
        return gate;
    }

    void request(const std::string& value) { bus_->deliver("prop-service-state/x", "State.Provisioning", value); }

    bool waitForResults(std::size_t count) {
        return phone_.properties->waitForWrites([&](const auto& writes) {
            std::size_t results = 0;
            for (const auto& write : writes) results += write.key == "State.Provisioning" ? 1U : 0U;
            return results >= count;
        });
    }

    Phone phone_;
    fakes::HttpServer server_;
    const std::shared_ptr<fakes::FakeBus> bus_ = std::make_shared<fakes::FakeBus>();
    RecordingTimer timer_{phone_.properties};
    RecordingSecurity security_{phone_.properties};
    std::shared_ptr<zav::Dispatcher> dispatcher_;
};

}  // namespace tests
