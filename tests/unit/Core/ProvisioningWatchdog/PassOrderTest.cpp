// The order of the steps at the beginning and the end of a pass. Each test checks the state from inside one of the
// steps.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::HttpAnswer;
using fakes::info;

const std::string source = "Core/ProvisioningWatchdog/ProvisioningWorker";
const std::string reporterSource = "Core/ProvisioningWatchdog/ProgressReporter";
const auto waiting = info(reporterSource, "Waiting for progress");
const auto consumed = info(reporterSource, "Progress consumed");
const auto finished = info(source, "Provisioning Finished");
// How long a test waits for an event that must not happen. A shorter time could hide a defect, but not fail a good
// build.
constexpr std::chrono::milliseconds absenceTimeout{200};

class WatchedSecurity : public zav::Security {
 public:
    using Security::Security;
    void notifySystemAboutNewCertificates() override { onNotify(); }
    std::function<void()> onNotify = [] {};
};

class WatchedProperties : public fakes::FakeProperties {
 public:
    using FakeProperties::FakeProperties;
    std::string get(const std::string& key) override {
        onRead(key);
        return FakeProperties::get(key);
    }
    std::function<void(const std::string&)> onRead = [](const std::string&) {};
};

class PassOrderTest : public testing::Test {
 protected:
    PassOrderTest() {
        auto values = tests::factoryValues();
        values["System.Provision.ProvisioningServer"] = server_.url("/");
        properties_ = std::make_shared<WatchedProperties>(values);
        worker_ = std::make_unique<zav::ProvisioningWorker>(properties_, phone_.curl, security_);
    }
    ~PassOrderTest() override {
        gate_->open();
        worker_.reset();
        properties_->onWrite({});
    }
    void startHeldPass() {
        server_.on("/provisioning.xml",
                   HttpAnswer::error(404, "").heldBy(gate_));  // no body: downloaded bytes would be progress
        worker_->startProvisioning("");
        ASSERT_TRUE(gate_->waitUntilReached());
    }

    tests::Phone phone_;
    fakes::HttpServer server_;
    std::shared_ptr<fakes::Gate> gate_ = std::make_shared<fakes::Gate>();
    WatchedSecurity security_{phone_.properties};
    std::shared_ptr<WatchedProperties> properties_;
    std::unique_ptr<zav::ProvisioningWorker> worker_;
};

TEST_F(PassOrderTest, AnnouncesCertificatesAfterTheResultAndBeforeTheLastSignal) {
    properties_->put("State.FirmwareUpdate.TriggerAuto", "request");
    std::vector<fakes::PropertyWrite> written;
    bool signalled = true;
    security_.onNotify = [&] {
        written = properties_->writes();
        signalled = phone_.log.waitFor(consumed, 2, absenceTimeout);
    };
    ASSERT_NO_FATAL_FAILURE(startHeldPass());
    worker_->waitForProgress();  // the signal of the pass's start
    std::thread waiter([this] { worker_->waitForProgress(); });
    ASSERT_TRUE(phone_.log.waitFor(waiting, 2));
    gate_->open();
    waiter.join();
    worker_.reset();
    ASSERT_FALSE(written.empty());
    EXPECT_EQ(written.back(), (fakes::PropertyWrite{"State.FirmwareUpdate.TriggerAuto", "", "no_version"}));
    EXPECT_FALSE(signalled) << "the waiter woke before the certificates were announced";
}

TEST_F(PassOrderTest, UnlocksTheScreenThenSetsTheFinishedFlagThenWritesTheResult) {
    std::vector<std::string> order;
    properties_->onWrite([&](const fakes::PropertyWrite& write) {
        order.push_back(write.key + (worker_->isProvisioningFinished() ? " finished" : " running"));
    });
    worker_->startProvisioning("");
    ASSERT_TRUE(phone_.log.waitFor(info(source, "Provisioning failed. ")));  // the last write has been made
    worker_.reset();
    EXPECT_EQ(order,
              (std::vector<std::string>{"State.Provisioning.LockUI running", "State.Provisioning.LockUI running",
                                        "State.Provisioning.HttpErrorCode finished", "State.Provisioning finished"}));
}

TEST_F(PassOrderTest, PassIsUnfinishedBeforeTheSettingsAreRead) {
    std::vector<bool> finishedAtRead;
    properties_->onRead = [&](const std::string& key) {
        if (key == "System.General.SoftwareVersion") finishedAtRead.push_back(worker_->isProvisioningFinished());
    };
    ASSERT_TRUE(worker_->isProvisioningFinished());
    worker_->startProvisioning("");
    ASSERT_TRUE(phone_.log.waitFor(finished));
    worker_.reset();
    EXPECT_EQ(finishedAtRead, std::vector<bool>{false});
}

// The last signal of the first pass is not consumed, and the second pass is held before its first signal.
TEST_F(PassOrderTest, NewPassDropsALeftoverSignal) {
    worker_->startProvisioning("");
    ASSERT_TRUE(phone_.log.waitFor(finished));
    std::promise<void> locking;
    std::promise<void> release;
    properties_->onWrite([&](const fakes::PropertyWrite& write) {
        if (write.key != "State.Provisioning.LockUI" || write.value != "1") return;
        locking.set_value();
        release.get_future().wait();
    });
    worker_->startProvisioning("");
    locking.get_future().wait();
    std::thread waiter([this] { worker_->waitForProgress(); });
    EXPECT_TRUE(phone_.log.waitFor(waiting));
    EXPECT_FALSE(phone_.log.waitFor(consumed, 1, absenceTimeout)) << "consumed the signal of the first pass";
    release.set_value();
    waiter.join();
    worker_.reset();
}

// The caller's thread has other work, so only the pass thread may wait for the service to come back.
TEST_F(PassOrderTest, OnlyCallsOnThePassThreadArePatient) {
    worker_->startProvisioning("");
    ASSERT_TRUE(phone_.log.waitFor(info(source, "Provisioning failed. ")));
    worker_.reset();
    EXPECT_EQ(properties_->recoveryCalls(),
              (std::vector<std::string>{"State.Provisioning.LockUI", "State.Provisioning.LockUI",
                                        "State.Provisioning.HttpErrorCode", "State.Provisioning",
                                        "State.FirmwareUpdate.TriggerAuto"}));
}

}  // namespace
