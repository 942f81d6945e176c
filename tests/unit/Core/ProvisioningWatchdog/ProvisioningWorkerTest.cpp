#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Core/Pass.h"
#include "debug/Debug.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::HttpAnswer;
using fakes::info;
using fakes::warning;

const std::string source = "Core/ProvisioningWatchdog/ProvisioningWorker";
const auto started = info(source, "Start provisioning thread");
const auto waitsForPrevious = warning(source, "Previous provisioning is not finished yet. Waiting...");
const auto finished = info(source, "Provisioning Finished");
const auto waiting = info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress");
const auto consumed = info("Core/ProvisioningWatchdog/ProgressReporter", "Progress consumed");
const std::string lockUi = "State.Provisioning.LockUI";
constexpr std::array<const char*, 3> lastKeys{"State.Provisioning.LockUI", "State.Provisioning",
                                              "State.Provisioning.HttpErrorCode"};

// How long a test waits for an event that must not happen.
constexpr std::chrono::milliseconds absenceTimeout{200};

/// A security object that counts calls, and can fail notifications.
class CountingSecurity : public zav::Security {
 public:
    using Security::Security;
    void notifySystemAboutNewCertificates() override {
        ++notifications;
        if (throws) throw 42;
    }
    void reloadDeviceIdentity() override {
        ++identityReloads;
        if (throws) throw std::runtime_error("no memory");
    }
    std::atomic<int> notifications{0};
    std::atomic<int> identityReloads{0};
    std::atomic<bool> throws{false};
};

// Returns once a thread of this process seems to have come to its wait: what it waits for could otherwise happen
// before, and a missing wake-up would go unnoticed.
void waitUntilAsleep(pid_t thread) {
    constexpr int enough = 20;
    for (int times = 0; times < enough;) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string line;
        std::getline(file, line);
        const std::size_t name = line.rfind(") ");
        if (name == std::string::npos) return;  // it has ended
        times = line[name + 2] == 'S' ? times + 1 : 0;
        std::this_thread::yield();
    }
}

class ProvisioningWorkerTest : public testing::Test {
 protected:
    ProvisioningWorkerTest() { phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/")); }
    ~ProvisioningWorkerTest() override {
        gate_->open();
        end();
    }

    void hold() { server_.on("/provisioning.xml", HttpAnswer::error(404).heldBy(gate_)); }
    /// The worker's destructor waits for the pass and its last writes.
    void end() { worker_.reset(); }
    void runPass(const std::string& url = "") {
        const std::size_t before = phone_.log.count(finished);
        worker_->startProvisioning(url);
        ASSERT_TRUE(phone_.log.waitFor(finished, before + 1));
    }
    /// Runs a pass that fails and whose last writes fail as if the service were offline.
    void runPassWithPendingWrites() {
        hold();
        worker_->startProvisioning("");
        ASSERT_TRUE(gate_->waitUntilReached());
        for (const char* key : lastKeys) phone_.properties->failKey(key);
        gate_->open();
        ASSERT_TRUE(phone_.log.waitFor(info(source, "Provisioning failed. ")));
    }
    void acceptLastWrites() {
        for (const char* key : lastKeys) phone_.properties->restoreKey(key);
    }
    std::vector<std::string> locks() const { return phone_.properties->writesTo(lockUi); }
    std::vector<std::string> results() const { return phone_.properties->writesTo("State.Provisioning"); }

    tests::Phone phone_;
    fakes::HttpServer server_;
    std::shared_ptr<fakes::Gate> gate_ = std::make_shared<fakes::Gate>();
    CountingSecurity security_{phone_.properties};
    std::unique_ptr<zav::ProvisioningWorker> worker_ =
        std::make_unique<zav::ProvisioningWorker>(phone_.properties, phone_.curl, security_);
};

TEST_F(ProvisioningWorkerTest, InitiallyFinishedWithoutAStatus) {
    EXPECT_TRUE(worker_->isProvisioningFinished());
    EXPECT_EQ(worker_->getProvisioningStatus(), "");
    worker_->waitForProgress();
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(ProvisioningWorkerTest, StatusIsNotAwaitedBeforeTheFirstPass) {
    constexpr int times = 5;  // each would wait for a second
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i) EXPECT_EQ(worker_->getProvisioningStatus(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(times));
}

TEST_F(ProvisioningWorkerTest, NothingStartsWithoutAServer) {
    phone_.properties->put("System.Provision.ProvisioningServer", "");
    worker_->startProvisioning("");
    EXPECT_TRUE(worker_->isProvisioningFinished());
    EXPECT_TRUE(phone_.log.has(error(source, "Provisioning URL not set. Provisioning not started.")));
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(ProvisioningWorkerTest, InvalidUrlThrowsAndReleasesWaiters) {
    EXPECT_THROW(worker_->startProvisioning("http://a b/"), zav::UrlException);
    EXPECT_FALSE(worker_->isProvisioningFinished()) << "the flag stays false if the URL is invalid";
    worker_->waitForProgress();
    EXPECT_FALSE(phone_.log.has(waiting)) << "no pass runs, so there is no progress to wait for";
    runPass();
    end();
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
}

TEST_F(ProvisioningWorkerTest, RunningPassIsUnfinishedWithoutAStatus) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    EXPECT_FALSE(worker_->isProvisioningFinished());
    EXPECT_EQ(worker_->getProvisioningStatus(), "");
    EXPECT_EQ(locks(), std::vector<std::string>{"1"});
    gate_->open();
    ASSERT_TRUE(phone_.log.waitFor(finished));
    EXPECT_TRUE(worker_->isProvisioningFinished());
    EXPECT_TRUE(phone_.properties->waitForWrite("State.Provisioning", "fail"));
    EXPECT_EQ(worker_->getProvisioningStatus(), "fail");
    end();
    EXPECT_EQ(locks(), (std::vector<std::string>{"1", "0"}));
    EXPECT_EQ(security_.notifications, 1);
}

TEST_F(ProvisioningWorkerTest, SecondRequestWaitsForTheFirstPass) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    std::atomic<bool> returned{false};
    std::thread second([&] {
        worker_->startProvisioning("");
        returned = true;
    });
    ASSERT_TRUE(phone_.log.waitFor(waitsForPrevious));
    EXPECT_FALSE(returned);
    EXPECT_EQ(phone_.log.count(started), 1U);
    gate_->open();
    second.join();
    ASSERT_TRUE(phone_.log.waitFor(finished, 2));
    end();
    EXPECT_EQ(results().size(), 2U);
    EXPECT_EQ(locks(), (std::vector<std::string>{"1", "0", "1", "0"})) << "the passes must not overlap";
}

TEST_F(ProvisioningWorkerTest, ConcurrentCallersRunPassesInSequence) {
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) callers.emplace_back([this] { worker_->startProvisioning(""); });
    for (auto& caller : callers) caller.join();
    ASSERT_TRUE(phone_.log.waitFor(finished, 4));
    end();
    EXPECT_EQ(results().size(), 4U);
    EXPECT_EQ(locks(), (std::vector<std::string>{"1", "0", "1", "0", "1", "0", "1", "0"}));
}

TEST_F(ProvisioningWorkerTest, StopDropsAWaitingRequest) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    std::atomic<pid_t> waiter{0};
    std::thread second([&] {
        waiter = static_cast<pid_t>(::syscall(SYS_gettid));
        worker_->startProvisioning("");
    });
    ASSERT_TRUE(phone_.log.waitFor(waitsForPrevious));
    waitUntilAsleep(waiter);
    worker_->stop();
    second.join();
    EXPECT_FALSE(worker_->isProvisioningFinished()) << "a dropped request does not wait for the pass";
    worker_->startProvisioning("");  // must be dropped too
    gate_->open();
    end();
    EXPECT_EQ(phone_.log.count(started), 1U);
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
}

TEST_F(ProvisioningWorkerTest, DownloadedBytesReleaseAWaiter) {
    auto more = std::make_shared<fakes::Gate>();
    server_.on("/provisioning.xml", HttpAnswer::ok(std::string(200000, 'x')).stallingAfter(100000, more));
    worker_->startProvisioning("");
    ASSERT_TRUE(more->waitUntilReached());
    worker_->waitForProgress();
    EXPECT_FALSE(worker_->isProvisioningFinished());
    std::thread waiter([&] { worker_->waitForProgress(); });
    more->open();
    waiter.join();
    ASSERT_TRUE(phone_.log.waitFor(finished));
}

/// An HTTP client whose progress callback the test calls.
class ManualCurl : public zav::Curl {
 public:
    void setProgressCallback(ProgressCallback given) override { callback = std::move(given); }
    ProgressCallback callback;
};

TEST_F(ProvisioningWorkerTest, OnlyAChangedByteCountIsProgress) {
    const auto curl = std::make_shared<ManualCurl>();
    zav::ProvisioningWorker worker(phone_.properties, curl, security_);
    ASSERT_TRUE(curl->callback);
    hold();
    worker.startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    worker.waitForProgress();       // the signal of the pass's start
    curl->callback(1000, 0, 0, 0);  // still 0 bytes downloaded
    curl->callback(2000, 0, 5, 6);
    std::thread waiter([&] { worker.waitForProgress(); });
    EXPECT_TRUE(phone_.log.waitFor(waiting, 2));
    EXPECT_FALSE(phone_.log.waitFor(consumed, 2, absenceTimeout)) << "no byte has been downloaded";
    dbg::Debug::info() << "a byte comes" << std::endl;
    curl->callback(1000, 1, 0, 0);
    waiter.join();
    curl->callback(1000, 1, 0, 0);
    std::thread again([&] { worker.waitForProgress(); });
    EXPECT_TRUE(phone_.log.waitFor(waiting, 3));
    EXPECT_FALSE(phone_.log.waitFor(consumed, 3, absenceTimeout)) << "the byte count is unchanged";
    dbg::Debug::info() << "the answer comes" << std::endl;
    gate_->open();
    again.join();

    std::string order;
    for (const auto& line : phone_.log.lines()) {
        if (line == consumed) order += "progress, ";
        if (line.text == "a byte comes" || line.text == "the answer comes") order += line.text + ", ";
    }
    EXPECT_EQ(order, "progress, a byte comes, progress, the answer comes, progress, ");
}

TEST_F(ProvisioningWorkerTest, DestructorUnregistersTheCallback) {
    const auto curl = std::make_shared<ManualCurl>();
    { const zav::ProvisioningWorker worker(phone_.properties, curl, security_); }
    EXPECT_FALSE(curl->callback);
}

TEST_F(ProvisioningWorkerTest, StopReleasesAWaiterWhileThePassContinues) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    worker_->waitForProgress();
    std::thread waiter([&] { worker_->waitForProgress(); });
    ASSERT_TRUE(phone_.log.waitFor(waiting, 2));
    worker_->stop();
    waiter.join();
    EXPECT_FALSE(worker_->isProvisioningFinished());
}

TEST_F(ProvisioningWorkerTest, EveryWaiterReturnsWhenThePassEnds) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    worker_->waitForProgress();  // the pass's start
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) waiters.emplace_back([this] { worker_->waitForProgress(); });
    ASSERT_TRUE(phone_.log.waitFor(waiting, 5));
    gate_->open();
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(phone_.log.count(consumed), 5U);
}

// Repeated, because a waiter misses the signal of its pass only in a window of microseconds.
TEST_F(ProvisioningWorkerTest, WaitersOfOnePassDoNotWaitForTheNext) {
    constexpr std::size_t waitersOfAPass = 8;
    hold();
    worker_->startProvisioning("");
    for (std::size_t pass = 0; pass < 40; ++pass) {
        ASSERT_TRUE(gate_->waitUntilReached());
        worker_->waitForProgress();  // the pass's start
        const std::size_t before = phone_.log.count(waiting);
        std::vector<std::thread> waiters;
        for (std::size_t i = 0; i < waitersOfAPass; ++i) waiters.emplace_back([this] { worker_->waitForProgress(); });
        ASSERT_TRUE(phone_.log.waitFor(waiting, before + waitersOfAPass));
        std::thread next([this] { worker_->startProvisioning(""); });
        ASSERT_TRUE(phone_.log.waitFor(waitsForPrevious, pass + 1));
        const auto gate = std::exchange(gate_, std::make_shared<fakes::Gate>());
        hold();
        gate->open();
        EXPECT_TRUE(phone_.log.waitFor(consumed, before + waitersOfAPass)) << "while the next pass runs, " << pass;
        next.join();
        if (HasFailure()) gate_->open();
        for (auto& waiter : waiters) waiter.join();
        if (HasFailure()) break;
    }
    gate_->open();
}

TEST_F(ProvisioningWorkerTest, RequestDropsThePendingResult) {
    ASSERT_NO_FATAL_FAILURE(runPassWithPendingWrites());
    phone_.properties->put("System.Provision.ProvisioningServer", "");
    worker_->startProvisioning("");  // starts no pass
    acceptLastWrites();
    EXPECT_TRUE(phone_.properties->waitForWrite(lockUi, "0")) << "the unlock must stay pending";
    end();
    EXPECT_TRUE(results().empty());
}

TEST_F(ProvisioningWorkerTest, ShutdownStopsTheJobsOfAPass) {
    phone_.properties->put("A", "");
    // The worker shares the stop signal of the pass around it, which has no grace period.
    zav::Pass outer(nullptr, std::make_shared<common::StopSignal>(std::chrono::milliseconds(0)));
    worker_ = std::make_unique<zav::ProvisioningWorker>(phone_.properties, phone_.curl, security_);
    server_.on(
        "/provisioning.xml",
        HttpAnswer::ok(tests::provisioningFile(
            "provisioning", "1.1", R"(<nvm><param name="A" value="1"/></nvm><nvm><param name="A" value="2"/></nvm>)")));
    phone_.properties->onWrite([this](const fakes::PropertyWrite& write) {
        if (write.key == "A") worker_->stop();
    });
    worker_->startProvisioning("");
    ASSERT_TRUE(phone_.log.waitFor(finished));
    end();
    EXPECT_EQ(phone_.properties->writesTo("A"), std::vector<std::string>{"1"});
    EXPECT_EQ(locks(), (std::vector<std::string>{"1", "0"}));
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
    EXPECT_TRUE(phone_.log.has(error(source,
                                     "Something went wrong during provisioning process, an exception was thrown: The "
                                     "process is shutting down")));
}

TEST_F(ProvisioningWorkerTest, PassOnAnExplicitUrlPublishesNothing) {
    phone_.properties->put("State.FirmwareUpdate.TriggerAuto", "request");
    runPass(server_.url("/own.xml"));
    end();
    EXPECT_EQ(phone_.properties->writes(), (std::vector<fakes::PropertyWrite>{{lockUi, "", "1"}, {lockUi, "", "0"}}));
}

TEST_F(ProvisioningWorkerTest, EveryPassReadsTheSettingsAgain) {
    runPass();
    phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/elsewhere/"));
    runPass();
    end();
    EXPECT_EQ(server_.requestsFor("/elsewhere/provisioning.xml").size(), 1U);
}

TEST_F(ProvisioningWorkerTest, ProvisionsEvenIfTheScreenCannotBeLocked) {
    phone_.properties->failCall(fakes::FakeProperties::Call::set, 1);
    runPass();
    end();
    EXPECT_EQ(locks(), std::vector<std::string>{"0"});
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
}

TEST_F(ProvisioningWorkerTest, RetriesTheLastWritesWhenTheServiceIsBack) {
    hold();
    phone_.properties->put("State.FirmwareUpdate.TriggerAuto", "request");
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    phone_.properties->setOffline(true);
    gate_->open();
    ASSERT_TRUE(phone_.log.waitFor(info(source, "Provisioning failed. ")));
    EXPECT_TRUE(worker_->isProvisioningFinished());
    EXPECT_EQ(locks(), std::vector<std::string>{"1"});
    phone_.properties->setOffline(false);
    ASSERT_TRUE(phone_.properties->waitForWrite("State.FirmwareUpdate.TriggerAuto", "no_version"));
    EXPECT_EQ(phone_.properties->writes(),
              (std::vector<fakes::PropertyWrite>{{lockUi, "", "1"},
                                                 {lockUi, "", "0"},
                                                 {"State.Provisioning.HttpErrorCode", "", "404"},
                                                 {"State.Provisioning", "", "fail"},
                                                 {"State.FirmwareUpdate.TriggerAuto", "", "no_version"}}));
}

TEST_F(ProvisioningWorkerTest, NewPassDropsPendingWrites) {
    ASSERT_NO_FATAL_FAILURE(runPassWithPendingWrites());
    phone_.properties->forgetCalls();
    server_.on("/provisioning.xml", HttpAnswer::ok(tests::provisioningFile("provisioning", "1.1", "<nvm/>")));
    runPass();
    acceptLastWrites();
    end();
    EXPECT_EQ(results(), std::vector<std::string>{"partSuccess"}) << "the first pass's 'fail' must not be written";
    EXPECT_EQ(locks(), std::vector<std::string>{"0"});
}

TEST_F(ProvisioningWorkerTest, RequestThatStartsNoPassKeepsPendingWrites) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    phone_.properties->failKey(lockUi);
    gate_->open();
    ASSERT_TRUE(phone_.log.waitFor(info(source, "Provisioning failed. ")));
    phone_.properties->put("System.Provision.ProvisioningServer", "");
    worker_->startProvisioning("");
    phone_.properties->put("System.Provision.ProvisioningServer", "http://a b/");
    EXPECT_THROW(worker_->startProvisioning(""), zav::UrlException);
    phone_.properties->restoreKey(lockUi);
    EXPECT_TRUE(phone_.properties->waitForWrite(lockUi, "0")) << "a screen must not stay locked";
}

TEST_F(ProvisioningWorkerTest, LastStepsFailIndependently) {
    security_.throws = true;
    fakes::FakeProperties::Values values = tests::factoryValues();
    values["System.Provision.ProvisioningServer"] = server_.url("/");
    values.erase(lockUi);
    values.erase("State.Provisioning.HttpErrorCode");
    values.erase("State.FirmwareUpdate.TriggerAuto");
    const auto properties = std::make_shared<fakes::FakeProperties>(values);
    worker_ = std::make_unique<zav::ProvisioningWorker>(properties, phone_.curl, security_);
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    worker_->waitForProgress();
    std::thread waiter([&] { worker_->waitForProgress(); });
    ASSERT_TRUE(phone_.log.waitFor(waiting, 2));
    gate_->open();
    waiter.join();  // released by the last step
    end();
    EXPECT_EQ(properties->writes(), (std::vector<fakes::PropertyWrite>{{"State.Provisioning", "", "fail"}}));
    EXPECT_EQ(security_.notifications, 1);
    for (const char* text :
         {"Could not publish the HTTP code: Property 'State.Provisioning.HttpErrorCode': not found",
          "Could not publish the provisioning result: Property 'State.FirmwareUpdate.TriggerAuto': not found",
          "Could not read the device certificate: no memory", "Could not notify about new certificates"}) {
        EXPECT_TRUE(phone_.log.has(error(source, text))) << text << "\n" << phone_.log.text();
    }
}

TEST_F(ProvisioningWorkerTest, ExceptionEndsThePassAsFail) {
    phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/%MACD.xml"));
    phone_.properties->failKey("NET.MAC.Address");
    runPass();
    end();
    EXPECT_TRUE(
        phone_.log.has(error(source,
                             "Something went wrong during provisioning process, an exception was thrown: Property "
                             "'NET.MAC.Address': the property service is offline")));
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
}

TEST_F(ProvisioningWorkerTest, ExceptionInAJobKeepsTheRecordedStatus) {
    phone_.properties->put("A", "");
    server_.on("/provisioning.xml",
               HttpAnswer::ok(tests::provisioningFile("provisioning", "1.0",
                                                      R"(<category type="nvm" url="/nvm.xml"/><category url="x"/>)")));
    server_.on("/nvm.xml", HttpAnswer::ok(tests::provisioningFile("nvm", "1.0", R"(<file url="/s.xml"/>)")));
    server_.on("/s.xml", HttpAnswer::ok(tests::provisioningFile("settings", "1.0", R"(<param name="A" value="1"/>)")));
    runPass();
    end();
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
    const auto lines = phone_.log.linesOf("Core/ProvisioningStatusReporter");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].text.find("\"jobStatus\" : \"success\""), std::string::npos) << lines[0];
}

TEST_F(ProvisioningWorkerTest, VersionIsPerPass) {
    zav::setCurrentProvisioningVersion("1.0");
    server_.on("/provisioning.xml", HttpAnswer::ok(tests::provisioningFile("provisioning", "1.1", "<nvm/>")));
    runPass();
    end();
    EXPECT_TRUE(phone_.log.has(info(source, "Starting provisioning version: 1.1"))) << "the old version must not count";
}

TEST_F(ProvisioningWorkerTest, OutermostPassReadsTheDeviceCertificate) {
    runPass();
    EXPECT_EQ(security_.identityReloads, 1);
    end();
    zav::Pass outer(nullptr, std::make_shared<common::StopSignal>());
    worker_ = std::make_unique<zav::ProvisioningWorker>(phone_.properties, phone_.curl, security_);
    runPass();
    EXPECT_EQ(security_.identityReloads, 1) << "a nested pass uses that of the pass around it";
}

TEST_F(ProvisioningWorkerTest, DestructorWaitsForThePass) {
    hold();
    worker_->startProvisioning("");
    ASSERT_TRUE(gate_->waitUntilReached());
    gate_->open();
    end();
    EXPECT_EQ(results(), std::vector<std::string>{"fail"});
    EXPECT_EQ(locks(), (std::vector<std::string>{"1", "0"}));
}

}  // namespace
