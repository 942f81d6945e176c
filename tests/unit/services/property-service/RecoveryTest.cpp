// After each kind of failed call the next ones succeed, in the same process and with the full time-out.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Program.h"
#include "TemporaryFolder.h"
#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertyapi;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::string key = "System.General.Location";

/// A broker, a property service, and a client.
struct Phone {
    Phone() {
        start();
        bus->connect(broker.address());
    }
    void start() {
        service = std::make_unique<Program>(std::vector<std::string>{"--store", folder / "s.db", "--catalogue",
                                                                     SHIPPED_CATALOGUE, "--host", "127.0.0.1", "--port",
                                                                     std::to_string(broker.port())});
    }

    const TemporaryFolder folder;
    fakes::Broker broker{"max_queued_messages 0\n"};
    std::unique_ptr<Program> service;
    const std::shared_ptr<ipc::IIPCClient> bus =
        ipc::IPCFactory::createInstanceShared("prov-client", broker.address(), false);
    const std::shared_ptr<IPropertyApi> properties = PropertyApiBuilder::getPropertyApi(bus, "prov-client");
};

/// Waits until a call succeeds.
bool works(IPropertyApi& properties) {
    const auto end = steady_clock::now() + 30s;
    while (steady_clock::now() < end) {
        try {
            properties.set(key, "x");
            return true;
        } catch (const PropertyException&) {
            std::this_thread::yield();
        }
    }
    return false;
}

template <typename Exception>
void expectFailure(const std::function<void()>& call) {
    EXPECT_THROW(call(), Exception);
}

struct Failure {
    const char* name;
    int rounds;
    std::function<void(Phone&)> cause;  // makes a call fail, then removes the cause
};

std::ostream& operator<<(std::ostream& stream, const Failure& row) { return stream << row.name; }

class Recovery : public testing::TestWithParam<Failure> {};

TEST_P(Recovery, CallsSucceedAfterEachFailure) {
    Phone phone;
    ASSERT_TRUE(works(*phone.properties));
    for (int round = 1; round <= GetParam().rounds; ++round) {
        GetParam().cause(phone);
        ASSERT_TRUE(works(*phone.properties)) << "round " << round;
        phone.properties->set(key, "round " + std::to_string(round));
        EXPECT_EQ(phone.properties->get(key), "round " + std::to_string(round));
        EXPECT_EQ(phone.properties->list(key, "").properties.size(), 1U);
    }
    EXPECT_EQ(phone.service->end(SIGTERM), 0);
}

void refusedCalls(Phone& phone) {
    IPropertyApi& properties = *phone.properties;
    expectFailure<PropertyNotFoundException>([&] { properties.get("No.Such"); });
    expectFailure<PropertyInvalidValueException>([&] { properties.set("NET.VLAN.LAN.Identifier", "5000"); });
    expectFailure<PropertyInvalidValueException>([&] { properties.set(key, "\xff"); });
    expectFailure<PropertyReadOnlyException>([&] { properties.set("State.Provisioning", "provisioning", "request"); });
}

void frozenService(Phone& phone) {
    phone.service->freeze();
    expectFailure<PropertyTimeoutException>([&] { phone.properties->get(key); });
    phone.service->thaw();
}

void killedService(Phone& phone) {
    EXPECT_EQ(phone.service->end(SIGKILL), -SIGKILL);
    expectFailure<PropertyOfflineException>([&] {
        for (;;) phone.properties->get(key);
    });
    phone.start();
}

void killedBroker(Phone& phone) {
    phone.broker.stop();
    expectFailure<PropertyOfflineException>([&] { phone.properties->get(key); });
    phone.broker.start();
}

void frozenBroker(Phone& phone) {
    phone.broker.freeze();
    expectFailure<PropertyTimeoutException>([&] { phone.properties->get(key); });
    phone.broker.thaw();
}

void takeover(Phone& phone) {
    const auto other = ipc::IPCFactory::createInstanceShared("prov-client", phone.broker.address(), false);
    other->connect(phone.broker.address());
    EXPECT_TRUE(works(*phone.properties));
    other->disconnect();
}

INSTANTIATE_TEST_SUITE_P(Failures, Recovery,
                         testing::Values(Failure{"RefusedCalls", 2, refusedCalls},
                                         Failure{"FrozenService", 1, frozenService},
                                         Failure{"KilledService", 3, killedService},
                                         Failure{"KilledBroker", 2, killedBroker},
                                         Failure{"FrozenBroker", 1, frozenBroker}, Failure{"Takeover", 2, takeover}),
                         [](const auto& row) { return row.param.name; });

TEST(Shutdown, FrozenServiceTakesTwoSecondsOnce) {
    Phone phone;
    ASSERT_TRUE(works(*phone.properties));
    phone.service->freeze();
    const auto begin = steady_clock::now();
    phone.properties->beginShutdown();
    EXPECT_THROW(phone.properties->set(key, "late"), PropertyTimeoutException);
    for (int call = 0; call < 100; ++call) EXPECT_THROW(phone.properties->set(key, "x"), PropertyTimeoutException);
    const auto took = steady_clock::now() - begin;
    EXPECT_GE(took, 1900ms);
    EXPECT_LT(took, 4s);
    phone.service->thaw();
    EXPECT_TRUE(works(*phone.properties)) << "a late answer restores the full time-out";
}

}  // namespace
