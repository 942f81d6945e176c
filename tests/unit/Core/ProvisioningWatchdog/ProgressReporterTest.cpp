#include "Core/ProvisioningWatchdog/ProgressReporter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "fakes/FullStandardError.h"
#include "fakes/LogCapture.h"

namespace {

const std::string source = "Core/ProvisioningWatchdog/ProgressReporter";
const auto waiting = fakes::info(source, "Waiting for progress");
const auto consumed = fakes::info(source, "Progress consumed");

class ProgressReporterTest : public testing::Test {
 protected:
    /// Starts a waiter on its own thread and returns once it has logged that it waits.
    void startWaiter() {
        const std::size_t before = log_.count(waiting);
        waiter_ = std::thread([this] {
            reporter_.waitForProgress();
            returned_ = true;
        });
        ASSERT_TRUE(log_.waitFor(waiting, before + 1));
    }
    ~ProgressReporterTest() override {
        reporter_.release();
        if (waiter_.joinable()) waiter_.join();
    }

    fakes::LogCapture log_;
    zav::ProgressReporter reporter_;
    std::atomic<bool> returned_{false};
    std::thread waiter_;
};

TEST_F(ProgressReporterTest, SeveralSignalsCountAsOne) {
    for (int i = 0; i < 3; ++i) reporter_.notifyProgress();
    reporter_.waitForProgress();
    EXPECT_EQ(log_.lines(), (fakes::LogCapture::Lines{waiting, consumed}));
    startWaiter();
    EXPECT_FALSE(returned_) << "the second wait blocks";
    EXPECT_EQ(log_.count(consumed), 1U);
    reporter_.notifyProgress();
    waiter_.join();
    EXPECT_EQ(log_.count(consumed), 2U);
}

TEST_F(ProgressReporterTest, ResetDropsTheSignal) {
    reporter_.notifyProgress();
    reporter_.resetProgress();
    startWaiter();
    EXPECT_FALSE(returned_);
    reporter_.notifyProgress();
    waiter_.join();
    EXPECT_TRUE(returned_);
}

TEST_F(ProgressReporterTest, ReleaseEndsEveryWait) {
    startWaiter();
    reporter_.release();
    waiter_.join();
    reporter_.waitForProgress();
    reporter_.resetProgress();
    reporter_.waitForProgress();
    EXPECT_EQ(log_.count(consumed), 3U);
}

TEST_F(ProgressReporterTest, BlockedLogDoesNotDelaySignals) {
    startWaiter();
    fakes::FullStandardError full;
    full.hold();
    reporter_.notifyProgress();  // the waiter wakes and logs
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration longest{};
    while (!returned_) {
        const auto before = std::chrono::steady_clock::now();
        reporter_.notifyProgress();
        longest = std::max(longest, std::chrono::steady_clock::now() - before);
    }
    const auto logged = std::chrono::steady_clock::now() - start;
    full.release();
    EXPECT_GT(logged, std::chrono::seconds(1)) << "the log line did not block";
    EXPECT_LT(longest, std::chrono::seconds(1));
}

}  // namespace
