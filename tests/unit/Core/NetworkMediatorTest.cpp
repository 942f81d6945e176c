#include "Core/NetworkMediator.h"

#include <gtest/gtest.h>

#include "unit/Core/support/DispatcherFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using Lines = fakes::LogCapture::Lines;
using Timing = zav::MediatorTiming;

const std::string source = "Core/NetworkMediator";
const auto started = info(source, "start network state checker");
const auto notReady = warning(source, "Network not ready yet.");
const auto stabilising = info(source, "Network interface is configured, waiting: 90seconds for stabilization.");
const auto enabling = info(source, "Enabling provisioning function.");
const auto enabled = warning("Core/Dispatcher", "Provisioning on boot up already done, skipping");

class NetworkMediatorTest : public tests::DispatcherFixture {
 protected:
    NetworkMediatorTest() { phone_.properties->put("State.Provisioning.OnBootUp", "done"); }

    static Timing atOnce() { return {std::chrono::milliseconds(0), std::chrono::seconds(0)}; }
    static Timing never() { return {std::chrono::hours(1), std::chrono::hours(1)}; }
};

TEST_F(NetworkMediatorTest, DefaultTimes) {
    const Timing timing;
    EXPECT_EQ(timing.pollInterval, std::chrono::milliseconds(5000));
    EXPECT_EQ(timing.stabilisation, std::chrono::seconds(90));
}

TEST_F(NetworkMediatorTest, ReadyNetworkEnablesProvisioningWithoutAWarning) {
    zav::NetworkMediator mediator(atOnce());
    mediator.start(dispatcher_, [] { return true; });
    ASSERT_TRUE(phone_.log.waitFor(enabled));
    EXPECT_EQ(phone_.log.lines(), (Lines{started, stabilising, enabling, enabled}));
}

TEST_F(NetworkMediatorTest, LateNetworkIsWarnedAboutOnce) {
    std::atomic<int> checks{0};
    zav::NetworkMediator mediator(atOnce());
    mediator.start(dispatcher_, [&checks] { return ++checks > 3; });
    ASSERT_TRUE(phone_.log.waitFor(enabled));
    EXPECT_EQ(phone_.log.lines(), (Lines{started, notReady, stabilising, enabling, enabled}));
    EXPECT_EQ(checks, 4);
}

TEST_F(NetworkMediatorTest, StopsWhilePolling) {
    {
        zav::NetworkMediator mediator(never());
        mediator.start(dispatcher_, [] { return false; });
        ASSERT_TRUE(phone_.log.waitFor(started));
    }
    EXPECT_EQ(dispatcher_.use_count(), 1) << "the thread must release the dispatcher";
    EXPECT_EQ(phone_.log.lines(), Lines{started});
}

TEST_F(NetworkMediatorTest, StopsWhileStabilising) {
    {
        zav::NetworkMediator mediator(never());
        mediator.start(dispatcher_, [] { return true; });
        ASSERT_TRUE(phone_.log.waitFor(stabilising));
    }
    EXPECT_EQ(dispatcher_.use_count(), 1);
    EXPECT_EQ(phone_.log.lines(), (Lines{started, stabilising}));
}

TEST_F(NetworkMediatorTest, StopsDuringTheBootUpPassWithTheDispatcher) {
    phone_.properties->put("State.Provisioning.OnBootUp", "");
    const auto gate = holdPass();
    {
        zav::NetworkMediator mediator(atOnce());
        mediator.start(dispatcher_, [] { return true; });
        ASSERT_TRUE(gate->waitUntilReached());
        dispatcher_->stopListening();
    }
    EXPECT_EQ(dispatcher_.use_count(), 1);
    gate->open();
}

TEST_F(NetworkMediatorTest, ThrowingCheckAbortsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto startWithoutCheck = [this] {
        zav::NetworkMediator mediator(atOnce());
        mediator.start(dispatcher_, {});
    };
    EXPECT_EXIT(startWithoutCheck(), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(NetworkMediatorTest, RunsTheFirstActionBeforeTheCheck) {
    std::string order;
    {
        zav::NetworkMediator mediator(never());
        mediator.start(
            dispatcher_,
            [&] {
                order += "check ";
                return true;
            },
            [&] { order += "first "; });
        ASSERT_TRUE(phone_.log.waitFor(stabilising));
    }
    EXPECT_EQ(order, "first check ");
}

TEST_F(NetworkMediatorTest, DestructionWithoutAStart) { const zav::NetworkMediator mediator(never()); }

}  // namespace
