// Property calls while the service or the bus is away or does not answer: time-outs, shutdown, and recovery.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "PropertyService.h"
#include "Settings.h"
#include "propertyapi/RecoveryScope.h"
#include "propertyprotocol/Topics.h"

namespace {

using namespace bustest;
using conformance::settings;
using namespace propertyapi;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Of a machine that is busy with something else.
constexpr milliseconds tolerance{1500};

class PropertyOutage : public testing::Test {
 protected:
    void SetUp() override {
        if (settings().startService.empty()) GTEST_SKIP() << "needs a property service: --start-service";
        bus = std::make_unique<conformance::Bus>();
        service = std::make_unique<conformance::PropertyService>();
    }

    /// Runs the call and returns its outcome: the value, or the kind of its exception.
    std::string outcomeOfGet() {
        try {
            return service->properties().get(text);
        } catch (const PropertyOfflineException&) {
            return "offline";
        } catch (const PropertyTimeoutException&) {
            return "timeout";
        } catch (const PropertyException& error) {
            return error.what();
        }
    }

    struct Timed {
        std::string outcome;
        milliseconds took;
    };
    Timed timedGet() {
        const auto begin = steady_clock::now();
        const std::string outcome = outcomeOfGet();
        return {outcome, std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin)};
    }

    const std::string text = settings().textKey;
    Recorder changes;  // must outlive the client
    std::unique_ptr<conformance::Bus> bus;
    std::unique_ptr<conformance::PropertyService> service;
};
using Recovery = PropertyOutage;

#define NEEDS_A_FROZEN_SERVICE() \
    if (!settings().stopService.empty()) GTEST_SKIP() << "suspends the service: needs it in the foreground"

TEST_F(PropertyOutage, CallsFailAtOnceWhileTheServiceIsOffline) {
    service->stop();
    service->awaitOffline();
    const Timed call = timedGet();
    EXPECT_EQ(call.outcome, "offline");
    EXPECT_LT(call.took, milliseconds(500));
    EXPECT_THROW(service->properties().set(text, "x"), PropertyOfflineException);
    EXPECT_THROW(service->properties().list("", ""), PropertyOfflineException);
    service->start();
}

TEST_F(PropertyOutage, CallsWorkAgainAfterARestartOfTheBus) {
    service->properties().set(text, "kept");
    bus->stop();
    bus->start();
    EXPECT_TRUE(eventually([this] { return outcomeOfGet() == "kept"; }));
}

TEST_F(PropertyOutage, TimeoutIsFiveSecondsThenOneUntilAnAnswerComes) {
    NEEDS_A_FROZEN_SERVICE();
    service->properties().set(text, "here");
    service->freeze();
    const Timed first = timedGet();
    EXPECT_EQ(first.outcome, "timeout");
    EXPECT_GE(first.took, milliseconds(4900));
    EXPECT_LT(first.took, milliseconds(5000) + tolerance);
    const Timed second = timedGet();
    EXPECT_EQ(second.outcome, "timeout");
    EXPECT_GE(second.took, milliseconds(900));
    EXPECT_LT(second.took, milliseconds(1000) + tolerance);
    service->thaw();
    EXPECT_TRUE(eventually([this] { return outcomeOfGet() == "here"; }));
    // The time-out is that of the beginning again: the answer comes after more than one second.
    service->freeze();
    Timed third{"", {}};
    std::thread asking([&] { third = timedGet(); });
    EXPECT_FALSE(Gate().pass(milliseconds(2000)));
    service->thaw();
    asking.join();
    EXPECT_EQ(third.outcome, "here");
}

TEST_F(PropertyOutage, ShutdownLimitsCallsToTwoSeconds) {
    NEEDS_A_FROZEN_SERVICE();
    service->freeze();
    Timed inFlight{"", {}};
    Gate begun;
    std::thread asking([&] {
        begun.open();
        inFlight = timedGet();
    });
    ASSERT_TRUE(begun.pass());
    const auto begin = steady_clock::now();
    service->properties().beginShutdown();
    service->properties().beginShutdown();
    EXPECT_LT(steady_clock::now() - begin, milliseconds(500)) << "it blocks";
    asking.join();
    EXPECT_EQ(inFlight.outcome, "timeout");
    EXPECT_LT(steady_clock::now() - begin, milliseconds(2000) + tolerance);
    const Timed later = timedGet();
    EXPECT_EQ(later.outcome, "timeout");
    EXPECT_LT(later.took, milliseconds(500));
}

TEST_F(Recovery, CallsSurviveARestartOfTheService) {
    service->properties().set(text, "stored");
    service->stop();
    service->awaitOffline();
    std::string inside = "no answer";
    std::thread pass([&] {
        const RecoveryScope scope;
        inside = outcomeOfGet();
    });
    EXPECT_EQ(outcomeOfGet(), "offline") << "calls on other threads do not wait";
    service->launch();
    pass.join();
    EXPECT_EQ(inside, "stored");
}

TEST_F(Recovery, SetsAreNotLost) {
    const RecoveryScope scope;
    for (int i = 0; i < 30; ++i) {
        if (i % 10 == 5) service->stop();
        if (i % 10 == 5) service->launch();
        service->properties().set(text, std::to_string(i));
        EXPECT_EQ(service->properties().get(text), std::to_string(i));
    }
}

TEST_F(Recovery, SetInFlightThatWasNotExecutedIsRepeatedOnce) {
    NEEDS_A_FROZEN_SERVICE();
    service->client().subscribe(propertyprotocol::changeTopic(text), changes);
    service->freeze();
    std::thread pass([this] {
        const RecoveryScope scope;
        EXPECT_NO_THROW(service->properties().set(text, "once"));
    });
    EXPECT_FALSE(Gate().pass(milliseconds(300)));  // the request is on its way
    service->stop();
    service->launch();
    pass.join();
    service->properties().set(text, "end");
    EXPECT_TRUE(eventually([&] { return changes.messages().size() >= 2; }));
    EXPECT_EQ(changes.messages().size(), 2U);
}

TEST_F(Recovery, CallsFailFiveSecondsAfterTheServiceWentAway) {
    service->stop();
    service->awaitOffline();
    const RecoveryScope scope;
    const Timed call = timedGet();
    EXPECT_EQ(call.outcome, "offline");
    EXPECT_GE(call.took, milliseconds(3000));
    EXPECT_LT(call.took, milliseconds(5000) + tolerance);
    EXPECT_LT(timedGet().took, milliseconds(500)) << "the wait must count from the outage, not from the call";
}

TEST_F(Recovery, EndsWithItsObject) {
    {
        const RecoveryScope outer;
        const RecoveryScope inner;
    }
    service->stop();
    service->awaitOffline();
    EXPECT_LT(timedGet().took, milliseconds(500));
}

TEST_F(Recovery, IsOverOnceTheShutdownBegins) {
    service->stop();
    service->awaitOffline();
    std::string outcome;
    const auto begin = steady_clock::now();
    std::thread pass([&] {
        const RecoveryScope scope;
        outcome = outcomeOfGet();
    });
    service->properties().beginShutdown();
    pass.join();
    EXPECT_EQ(outcome, "offline");
    EXPECT_LT(steady_clock::now() - begin, milliseconds(2000) + tolerance);
}

}  // namespace
