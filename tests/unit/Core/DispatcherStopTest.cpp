// Shutdown with pending watchdog queries, and the destruction of a dispatcher that was not stopped.
#include <thread>
#include <vector>

#include "unit/Core/support/DispatcherFixture.h"

namespace {

using fakes::info;

class DispatcherStopTest : public tests::DispatcherFixture {};

// A released query checks whether the dispatcher is stopping. With many queries, some check while others are still
// being released, so the test fails if the shutdown takes these two steps in the wrong order.
TEST_F(DispatcherStopTest, StopAnswersNoPendingWatchdogQuery) {
    constexpr std::size_t count = 100;
    const auto waiting = info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress");
    begin();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    bus_->deliver("watchdog/prov-client", "Are you alive?", "");  // consumes the signal of the pass's start
    std::vector<std::thread> deliveries;
    for (std::size_t i = 0; i < count; ++i) {
        deliveries.emplace_back([this] { bus_->deliver("watchdog/prov-client", "Are you alive?", ""); });
    }
    const bool allWait = phone_.log.waitFor(waiting, count + 1);
    dispatcher_->stopListening();
    for (auto& delivery : deliveries) delivery.join();
    gate->open();
    EXPECT_TRUE(allWait);
    EXPECT_EQ(bus_->count("publish prov-client/watchdog {\"param\":\"Ok\"} 1"), 1U);
}

// This happens if the start fails with an exception after the connection.
TEST_F(DispatcherStopTest, DestructorDisconnects) {
    dispatcher_->startListening();
    dispatcher_.reset();
    EXPECT_EQ(bus_->calls().back(), "disconnect");
}

TEST_F(DispatcherStopTest, DestructorLogsAFailedDisconnect) {
    dispatcher_->startListening();
    phone_.log.forget();
    bus_->failOn("disconnect", "not connected");
    dispatcher_.reset();
    EXPECT_EQ(phone_.log.lines(),
              fakes::LogCapture::Lines{fakes::warning("Core/Dispatcher", "Cannot disconnect IPC not connected")});
}

}  // namespace
