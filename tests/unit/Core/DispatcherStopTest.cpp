// What a shutdown does to queries that are held back by a pass, and how a dispatcher ends that was not stopped.
#include <thread>
#include <vector>

#include "unit/Core/support/DispatcherFixture.h"

namespace {

using fakes::info;

class DispatcherStopTest : public tests::DispatcherFixture {};

// A query is released and looks whether it is still wanted. With many of them some look while the others are still
// being released, so the order of the two steps of a shutdown shows.
TEST_F(DispatcherStopTest, NoHeldWatchdogQueryIsAnswered) {
    constexpr std::size_t count = 100;
    const auto waiting = info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress");
    begin();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    bus_->deliver("watchdog/prov-client", "Are you alive?", "");  // consumes the start's signal
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

// As when an exception ends the start after the connection is made.
TEST_F(DispatcherStopTest, ItsDestructionDisconnects) {
    dispatcher_->startListening();
    dispatcher_.reset();
    EXPECT_EQ(bus_->calls().back(), "disconnect");
}

TEST_F(DispatcherStopTest, ADisconnectThatFailsInItsDestructionIsLogged) {
    dispatcher_->startListening();
    phone_.log.forget();
    bus_->failOn("disconnect", "not connected");
    dispatcher_.reset();
    EXPECT_EQ(phone_.log.lines(),
              fakes::LogCapture::Lines{fakes::warning("Core/Dispatcher", "Cannot disconnect IPC not connected")});
}

}  // namespace
