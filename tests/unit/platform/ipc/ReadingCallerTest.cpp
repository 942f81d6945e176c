// A thread that reads from the connection while it waits, beside the network thread.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "BusFixtures.h"
#include "Connection.h"
#include "common/ThreadSafety.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using ipc::Awaited;
using Clock = std::chrono::steady_clock;

class Arrivals : public ipc::ConnectionListener {
 public:
    void connectionReady() override {}
    void connectionLost(const std::string&) override {
        const common::LockGuard lock(mutex_);
        ++losses_;
        changed_.notifyAll();
    }
    void messageAcknowledged(const std::string&) override {}
    bool messageArrived(const ipc::Incoming& message) override {
        const common::LockGuard lock(mutex_);
        ++(message.topic == "response" ? responses_ : others_);
        changed_.notifyAll();
        if (connection_ != nullptr) connection_->interruptServing();
        return true;
    }

    /// Before the connection is opened.
    void interrupt(ipc::Connection& connection) { connection_ = &connection; }
    int responses() {
        const common::LockGuard lock(mutex_);
        return responses_;
    }
    bool waitForOthers(int count) {
        const common::LockGuard lock(mutex_);
        const auto until = Clock::now() + patience;
        return changed_.waitUntil(mutex_, until, [&]() REQUIRES(mutex_) { return others_ >= count; });
    }
    bool waitForLosses(int count) {
        const common::LockGuard lock(mutex_);
        const auto until = Clock::now() + patience;
        return changed_.waitUntil(mutex_, until, [&]() REQUIRES(mutex_) { return losses_ >= count; });
    }

 private:
    ipc::Connection* connection_ = nullptr;

    common::Mutex mutex_;
    common::ConditionVariable changed_;
    int responses_ GUARDED_BY(mutex_) = 0;
    int others_ GUARDED_BY(mutex_) = 0;
    int losses_ GUARDED_BY(mutex_) = 0;
};

/// A connection that is ready and hears everything.
class ReadingConnection : public testing::Test {
 protected:
    ReadingConnection() {
        arrivals.interrupt(connection);
        connection.subscribe("#", 0, 0);
        connection.open(broker.address(), false);
        connection.waitUntilReady();
    }
    ~ReadingConnection() override { connection.close(); }

    fakes::StubbornBroker broker;
    Arrivals arrivals;
    ipc::Connection connection{{"reader", "reader", false, "", false}, arrivals};
};

/// Messages that arrive with a response: few that are read in one round, or more.
class ReadingTogether : public ReadingConnection, public testing::WithParamInterface<int> {};

TEST_P(ReadingTogether, LeavesNothingInTheSocket) {
    for (int count = 1; count <= 20; ++count) {
        bool sent = false;
        // Sent only now, so that the message finds this thread waiting: it alone hears of it.
        const auto awaited = [&] {
            if (!sent) broker.sendAroundPingResponse("response", "other", GetParam());
            sent = true;
            return arrivals.responses() >= count ? Awaited::nothing : Awaited::response;
        };
        while (arrivals.responses() < count) {
            const bool reads = connection.serve(Clock::now() + patience, awaited);
            ASSERT_TRUE(reads || arrivals.responses() >= count);
        }
        ASSERT_TRUE(arrivals.waitForOthers(count * GetParam())) << "after response " << count;
    }
}

INSTANTIATE_TEST_SUITE_P(Response, ReadingTogether, testing::Values(1, 300));

TEST_F(ReadingConnection, NoticesTheEndThatArrivesWithAResponse) {
    bool sent = false;
    // Sent only now, so that the segment finds this thread waiting.
    const auto awaited = [&] {
        if (!sent) broker.sendAndEnd("response");
        sent = true;
        return arrivals.responses() > 0 ? Awaited::nothing : Awaited::response;
    };
    while (arrivals.responses() == 0) {
        const bool reads = connection.serve(Clock::now() + patience, awaited);
        ASSERT_TRUE(reads || arrivals.responses() > 0);
    }
    EXPECT_TRUE(arrivals.waitForLosses(1)) << "the end is left in the socket";
}

}  // namespace
