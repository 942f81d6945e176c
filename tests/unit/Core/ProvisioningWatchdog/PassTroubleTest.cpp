// Rare failures of a pass: its thread cannot be started, it throws an int, or it hangs in its last log lines.
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <system_error>
#include <thread>

#include "Core/Pass.h"
#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "fakes/FullStandardError.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::HttpAnswer;
using fakes::info;

const std::string source = "Core/ProvisioningWatchdog/ProvisioningWorker";
const auto finished = info(source, "Provisioning Finished");
const std::string lockUi = "State.Provisioning.LockUI";

/// Called instead of the C library's malloc_trim, which ends every pass: after its last signal, and before it is marked
/// as ended.
std::function<void()>& onTrim() {
    static std::function<void()> hook;
    return hook;
}

class PassTroubleTest : public testing::Test {
 protected:
    PassTroubleTest() { phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/")); }
    /// The worker's destructor waits for the pass and its last writes.
    void end() { worker_.reset(); }
    void runPass() {
        worker_->startProvisioning("");
        ASSERT_TRUE(phone_.log.waitFor(finished));
    }
    std::vector<std::string> results() const { return phone_.properties->writesTo("State.Provisioning"); }

    tests::Phone phone_;
    fakes::HttpServer server_;
    std::unique_ptr<zav::ProvisioningWorker> worker_ =
        std::make_unique<zav::ProvisioningWorker>(phone_.properties, phone_.curl, phone_.security);
};

/// Properties that throw an int when the MAC address is read.
class IntThrowingProperties : public fakes::FakeProperties {
 public:
    using FakeProperties::FakeProperties;
    std::string get(const std::string& key) override {
        if (key == "NET.MAC.Address") throw 42;
        return FakeProperties::get(key);
    }
};

TEST_F(PassTroubleTest, NonStandardExceptionEndsThePassAsFail) {
    fakes::FakeProperties::Values values = tests::factoryValues();
    values["System.Provision.ProvisioningServer"] = server_.url("/");
    const auto properties = std::make_shared<IntThrowingProperties>(values);
    server_.on("/provisioning.xml", HttpAnswer::ok(tests::provisioningFile("provisioning", "1.1", "<nvm/>")));
    worker_ = std::make_unique<zav::ProvisioningWorker>(properties, phone_.curl, phone_.security);
    runPass();
    end();
    EXPECT_TRUE(phone_.log.has(
        error(source, "Something went wrong during provisioning process, an exception was thrown: unknown")));
    EXPECT_EQ(properties->writesTo("State.Provisioning"), std::vector<std::string>{"fail"});
    EXPECT_EQ(properties->writesTo(lockUi), (std::vector<std::string>{"1", "0"}));
}

/// Properties that stop a worker when a request reads the last of its settings.
class StoppingProperties : public fakes::FakeProperties {
 public:
    using FakeProperties::FakeProperties;
    std::string get(const std::string& key) override {
        if (key == "System.Debug.LevelMask.ZAV" && worker != nullptr) worker->stop();
        return FakeProperties::get(key);
    }
    zav::ProvisioningWorker* worker = nullptr;
};

TEST_F(PassTroubleTest, ShutdownWhileARequestReadsItsSettingsStartsNoPass) {
    fakes::FakeProperties::Values values = tests::factoryValues();
    values["System.Provision.ProvisioningServer"] = server_.url("/");
    values["System.Debug.LevelMask.ZAV"] = "7";
    const auto properties = std::make_shared<StoppingProperties>(values);
    worker_ = std::make_unique<zav::ProvisioningWorker>(properties, phone_.curl, phone_.security);
    properties->worker = worker_.get();
    worker_->startProvisioning("");
    EXPECT_TRUE(worker_->isProvisioningFinished());
    end();
    EXPECT_TRUE(properties->writes().empty());
    EXPECT_FALSE(phone_.log.has(finished));
}

/// While an object exists, no thread can be started: the default stack size is too large.
class NoThreads {
 public:
    NoThreads() {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &before_);
        constexpr std::size_t maximum = std::numeric_limits<std::size_t>::max();
        set(maximum - maximum / 16);
        pthread_attr_destroy(&attributes);
    }
    ~NoThreads() { set(before_); }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

 private:
    static void set(std::size_t size) {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_setstacksize(&attributes, size);
        EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
        pthread_attr_destroy(&attributes);
    }
    std::size_t before_ = 0;
};

TEST_F(PassTroubleTest, FailedThreadStartThrowsAndReleasesWaiters) {
    {
        const NoThreads none;
        EXPECT_THROW(worker_->startProvisioning(""), std::system_error);
    }
    EXPECT_TRUE(worker_->isProvisioningFinished());
    worker_->waitForProgress();
    EXPECT_TRUE(phone_.properties->writes().empty());
    runPass();
    end();
    EXPECT_EQ(results(), std::vector<std::string>{"fail"}) << "the next request works";
}

TEST_F(PassTroubleTest, WaitsASecondForAMissingStatus) {
    fakes::FullStandardError full;
    server_.on("/provisioning.xml", HttpAnswer::ok(tests::provisioningFile("provisioning", "1.1", "")));
    // This is the last write before the finished flag. From here on the log blocks, so the pass cannot set its status.
    phone_.properties->onWrite([&](const fakes::PropertyWrite& write) {
        if (write.key == lockUi && write.value == "0") full.hold();
    });
    worker_->startProvisioning("");
    while (!worker_->isProvisioningFinished()) std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(worker_->getProvisioningStatus(), "");
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::seconds(1));
    EXPECT_LT(waited, std::chrono::seconds(10));
    full.release();
    EXPECT_EQ(worker_->getProvisioningStatus(), "partSuccess");
    end();
    phone_.properties->onWrite({});
}

TEST_F(PassTroubleTest, RefusedResultIsAnErrorAndTheEndGoesOn) {
    phone_.properties->onWrite([](const fakes::PropertyWrite& write) {
        if (write.key == "State.Provisioning") throw std::runtime_error("the store is full");
    });
    runPass();
    end();
    EXPECT_TRUE(phone_.log.has(error(source, "Could not publish the status: the store is full"))) << phone_.log.text();
    EXPECT_TRUE(phone_.log.has(info(source, "Provisioning failed. "))) << "the steps after it";
}

TEST_F(PassTroubleTest, OnlyAnOutermostPassReleasesFreeMemory) {
    std::atomic<int> calls{0};
    onTrim() = [&] { ++calls; };
    runPass();
    end();
    EXPECT_EQ(calls, 1);
    {
        zav::Pass outer(nullptr, std::make_shared<common::StopSignal>());
        worker_ = std::make_unique<zav::ProvisioningWorker>(phone_.properties, phone_.curl, phone_.security);
        worker_->startProvisioning("");
        end();
    }
    EXPECT_EQ(calls, 1);
    onTrim() = nullptr;
}

// The end of a pass gives two signals, and each wakes one waiter: its last step gives one, and the thread another if
// anyone still waits.
TEST_F(PassTroubleTest, LastWaiterReturnsAlthoughTheFirstTookTheSignal) {
    const auto waiting = info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress");
    const auto consumed = info("Core/ProvisioningWatchdog/ProgressReporter", "Progress consumed");
    std::promise<void> ending;
    std::promise<void> goOn;
    phone_.properties->onWrite([&](const fakes::PropertyWrite& write) {
        if (write.key != lockUi || write.value != "0") return;
        ending.set_value();  // behind the signals of the download
        goOn.get_future().wait();
    });
    std::atomic<bool> firstReturned{false};
    bool returnedBeforeTheEnd = false;
    onTrim() = [&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!firstReturned && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        returnedBeforeTheEnd = firstReturned;
    };
    worker_->startProvisioning("");
    ending.get_future().wait();
    worker_->waitForProgress();  // the signal that the pass has given already
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            worker_->waitForProgress();
            firstReturned = true;
        });
    }
    EXPECT_TRUE(phone_.log.waitFor(waiting, 3));
    goOn.set_value();
    EXPECT_TRUE(phone_.log.waitFor(consumed, 3)) << "the thread's signal is missing";
    worker_->stop();  // releases threads that still wait
    for (auto& waiter : waiters) waiter.join();
    end();
    onTrim() = nullptr;
    phone_.properties->onWrite({});
    EXPECT_TRUE(returnedBeforeTheEnd) << "the last step of a pass is a signal";
}

}  // namespace

// Takes the place of the C library's function in this program.
extern "C" int malloc_trim(std::size_t) {
    if (onTrim()) onTrim()();
    return 0;
}
