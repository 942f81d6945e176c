// What a bus service tells its supervisor.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BusFixtures.h"
#include "fakes/Broker.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;

struct Supervisor {
    std::atomic<int> online{0};
    std::atomic<int> alive{0};
    std::atomic<std::thread::id> thread{};  // of the last report that the service is alive

    ipc::ServiceEvents events() {
        return {[this] { ++online; },
                [this] {
                    thread = std::this_thread::get_id();
                    ++alive;
                }};
    }
};

TEST(ServiceEvents, OnlineIsReportedOnceTheBrokerHasAcceptedIt) {
    fakes::StubbornBroker broker;
    Supervisor supervisor;
    const auto service = ipc::IPCFactory::createService("test-service", supervisor.events());
    service->start(broker.address(), statusTopic, {"test-service/ask"}, EchoService::echo);
    ASSERT_TRUE(eventually([&] { return broker.published() == std::vector<std::string>{statusTopic}; }));
    broker.send("test-service/ask", "x", 1);  // handled after whatever was reported before
    ASSERT_TRUE(eventually([&] { return broker.isTaken(); }));
    EXPECT_EQ(supervisor.online, 0);
    broker.giveIn();
    EXPECT_TRUE(eventually([&] { return supervisor.online == 1; }));
    service->stop();
    EXPECT_EQ(supervisor.online, 1) << "\"offline\" was taken for \"online\"";
}

}  // namespace
