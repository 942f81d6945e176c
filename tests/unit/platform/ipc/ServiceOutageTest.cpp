// A bus service whose broker is away or exits, or whose connection is lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>

#include "BusFixtures.h"
#include "ServiceFixtures.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using fakes::Broker;

TEST(Service, DropsRequestsFromALostConnection) {
    fakes::StubbornBroker broker;
    LargeChanges changes;
    EchoService service(broker.address(), changes.handler());
    broker.send("test-service/ask", LargeChanges::large, 600);  // most of them wait for acknowledgements
    ASSERT_TRUE(eventually([&] { return broker.isTaken() && changes.handled >= 70; }));
    broker.hangUp();
    broker.giveIn();
    broker.send("test-service/ask", "last", 1);
    EXPECT_TRUE(eventually([&] { return changes.last.load(); }));
    EXPECT_LE(changes.handled, 200U);
}

/// A service that loses its connection while it handles hundreds of requests. It handles 64 at a time, so it publishes
/// the changes of one batch after the loss and continues with the next.
class InterruptedService {
 public:
    enum class Cut { connection, broker };

    explicit InterruptedService(Cut cut) : cuts_(cut) {
        constexpr size_t many = 400;
        client_->subscribe("test-changes", changes_);
        client_->subscribe("test-service/ask", requests_);
        client_->publish("test-service/ask", "hold", 0);
        for (size_t i = 0; i < many; ++i) client_->publish("test-service/ask", std::to_string(i), 0);
        if (!requests_.waitForMessages(many + 1)) throw std::runtime_error("The requests did not arrive");
        gate_.open();
        if (!cut_.pass()) throw std::runtime_error("No batch had 64 requests");
    }
    InterruptedService(const InterruptedService&) = delete;
    InterruptedService& operator=(const InterruptedService&) = delete;
    ~InterruptedService() { client_->disconnect(); }

    void restore() { relay_.restore(); }
    void stop() { service_.stop(); }
    std::vector<std::string> handled() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return handled_;
    }
    /// The received changes without duplicates: those not acknowledged before the loss arrive twice.
    std::vector<std::string> changes() {
        std::vector<std::string> once;
        for (const std::string& each : changes_.contents()) {
            const bool isNew = each != "there?" && std::find(once.begin(), once.end(), each) == once.end();
            if (isNew) once.push_back(each);
        }
        return once;
    }

 private:
    std::vector<ipc::OutgoingMessage> handle(const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "hold") gate_.pass();
        if (requests.size() == 64 && !isCut_) {
            if (cuts_ == Cut::broker) {
                broker_.stop();
            } else {
                relay_.cut();
            }
            isCut_ = true;
            cut_.open();
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& request : requests) {
            if (request.payload != "there?") handled_.push_back(request.payload);
        }
        return changeAndEcho(requests);
    }

    const Cut cuts_;
    Broker broker_;
    fakes::Relay relay_{broker_.port()};
    Gate gate_;
    Gate cut_;
    bool isCut_ = false;  // used by the service's thread only
    std::mutex mutex_;
    std::vector<std::string> handled_;  // guarded by mutex_
    EchoService service_{cuts_ == Cut::broker ? broker_.address() : relay_.address(),
                         [this](const auto& requests) { return handle(requests); }};
    const std::shared_ptr<ipc::IIPCClient> client_ = newAsker(broker_.address());
    Recorder changes_;
    Recorder requests_;
};

TEST(Service, LosesNoChangeWithTheConnection) {
    InterruptedService service(InterruptedService::Cut::connection);
    service.restore();
    EXPECT_TRUE(eventually([&] { return service.changes() == service.handled(); }))
        << service.changes().size() << " changes of " << service.handled().size() << " requests";
}

TEST(Service, StopsAtOnceIfTheBrokerHasExited) {
    const fakes::LogCapture log;
    InterruptedService service(InterruptedService::Cut::broker);
    ASSERT_TRUE(eventually([&] { return logContains(log, "Connection to the broker lost"); }));
    const auto begin = std::chrono::steady_clock::now();
    service.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
}

TEST(Service, PublishesOfflineLastIfItStopsBeforeItIsSubscribed) {
    fakes::StubbornBroker broker;
    broker.holdSubscriptions();
    EchoService service(broker.address());
    ASSERT_TRUE(eventually([&] { return broker.heldSubscriptions() == 1; }));
    auto stopped = std::async(std::launch::async, [&] { service.stop(); });
    ASSERT_TRUE(eventually([&] { return !broker.published().empty(); }));
    broker.answerSubscriptions();
    broker.giveIn();
    stopped.wait();
    EXPECT_EQ(broker.published(), std::vector<std::string>{statusTopic}) << "\"online\" after \"offline\"";
}

}  // namespace
