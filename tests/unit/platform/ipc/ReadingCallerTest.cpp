// A thread that reads from the connection while it waits, beside the network thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <string>

#include "BusFixtures.h"
#include "Connection.h"
#include "System.h"
#include "common/Descriptor.h"
#include "common/ThreadSafety.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using ipc::Awaited;
using Clock = std::chrono::steady_clock;

class Arrivals : public ipc::ConnectionListener {
 public:
    void connectionReady() override {}
    void connectionLost(const std::string&) override {}
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

 private:
    ipc::Connection* connection_ = nullptr;

    common::Mutex mutex_;
    common::ConditionVariable changed_;
    int responses_ GUARDED_BY(mutex_) = 0;
    int others_ GUARDED_BY(mutex_) = 0;
};

TEST(ReadingConnection, LeavesUnreadInputToTheNetworkThread) {
    fakes::StubbornBroker broker;
    Arrivals arrivals;
    ipc::Connection connection({"reader", "reader", false, "", false}, arrivals);
    arrivals.interrupt(connection);
    connection.subscribe("#", 0, 0);
    connection.open(broker.address(), false);
    connection.waitUntilReady();
    for (int count = 1; count <= 20; ++count) {
        bool sent = false;
        // Sent only now, so that the message finds this thread waiting: it alone hears of it.
        const auto awaited = [&] {
            if (!sent) broker.sendAroundPingResponse("response", "other");
            sent = true;
            return arrivals.responses() >= count ? Awaited::nothing : Awaited::response;
        };
        while (arrivals.responses() < count) {
            const bool reads = connection.serve(Clock::now() + patience, awaited);
            ASSERT_TRUE(reads || arrivals.responses() >= count);
        }
        ASSERT_TRUE(arrivals.waitForOthers(count)) << "message " << count << " is left in the socket";
    }
    connection.close();
}

TEST(SocketWait, PollsWhatCannotBeWatched) {
    const ipc::Waker waker;
    ipc::SocketWait wait(waker);
    // The system refuses to watch a file, as it would refuse a socket without memory; poll calls it ready.
    const common::Descriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(wait.watch(file.get(), POLLIN));
    EXPECT_EQ(wait.poll(Clock::now() + patience), POLLIN);
    EXPECT_FALSE(wait.watch(file.get(), POLLIN)) << "not tried again";
    waker.wake();
    EXPECT_EQ(wait.wait(Clock::now() + patience), 0);
}

}  // namespace
