// The property service is killed and restarted while a client writes: calls in a RecoveryScope survive, others fail at
// once.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Program.h"
#include "TemporaryFolder.h"
#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "propertyapi/RecoveryScope.h"

namespace {

using propertyapi::PropertyOfflineException;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int sets = 5000;

std::string key(int number) { return "Test.Number." + std::to_string(number); }

class Restart : public testing::Test {
 protected:
    Restart() {
        std::ofstream(folder / "catalogue.json")
            << R"({"version":1,"keys":{"Test.Number.{0-4999}":{"type":"text","default":"","description":"A number"}}})";
        start();
        bus->connect(broker.address());
        while (!isOnline()) std::this_thread::yield();
    }

    void start() {
        service = std::make_unique<Program>(std::vector<std::string>{"--store", folder / "s.db", "--catalogue",
                                                                     folder / "catalogue.json", "--host", "127.0.0.1",
                                                                     "--port", std::to_string(broker.port())});
    }

    bool isOnline() {
        try {
            properties->get(key(0));
            return true;
        } catch (const PropertyOfflineException&) {
            return false;
        }
    }

    /// Writes every number to its key, sets the promise half-way, and returns the errors of failed sets.
    std::vector<std::string> writeAll(std::promise<void>& halfWay) {
        std::vector<std::string> failures;
        for (int number = 0; number < sets; ++number) {
            if (number == sets / 2) halfWay.set_value();
            try {
                properties->set(key(number), std::to_string(number));
            } catch (const propertyapi::PropertyException& error) {
                failures.emplace_back(error.what());
            }
        }
        return failures;
    }

    int storedValues() {
        int right = 0;
        std::string after;
        do {
            const propertyapi::PropertyPage page = properties->list("Test.", after);
            for (const auto& each : page.properties) right += each.key == "Test.Number." + each.value ? 1 : 0;
            after = page.next;
        } while (!after.empty());
        return right;
    }

    const TemporaryFolder folder;
    fakes::Broker broker{"max_queued_messages 0\n"};
    std::unique_ptr<Program> service;
    const std::shared_ptr<ipc::IIPCClient> bus = ipc::IPCFactory::createInstanceShared("test", broker.address(), true);
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "test");
};

TEST_F(Restart, LosesNoSetOfAPatientThread) {
    std::promise<void> halfWay;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::RecoveryScope scope;
        failures = writeAll(halfWay);
    });
    halfWay.get_future().wait();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    while (isOnline()) std::this_thread::yield();
    // This thread has no RecoveryScope.
    const auto begin = steady_clock::now();
    EXPECT_THROW(properties->set(key(0), "0"), PropertyOfflineException);
    EXPECT_LT(steady_clock::now() - begin, 2s);
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(storedValues(), sets);
}

/// Records the payloads of received changes.
class Changes final : public ipc::IIPCCallback {
 public:
    void connectionLost(const std::string&) override {}
    void deliveryComplete(const std::string&) override {}
    void messageArrived(const std::string&, const std::string& content) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        contents_.push_back(content);
        changed_.notify_all();
    }

    /// Waits for a change to the value; false after 30 s.
    bool waitFor(const std::string& value) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 30s, [&] { return has(value); });
    }
    bool received(const std::string& value) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return has(value);
    }

 private:
    bool has(const std::string& value) const {
        const std::string member = "\"value\":\"" + value + "\"";
        return std::any_of(contents_.rbegin(), contents_.rend(),
                           [&](const std::string& each) { return each.find(member) != std::string::npos; });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> contents_;  // guarded by mutex_
};

TEST_F(Restart, LosesNoChangeOfAnAnsweredSet) {
    Changes changes;
    bus->subscribe("prop-service-test/#", changes);
    for (int round = 0; round < 5; ++round) {
        const std::string name = "round " + std::to_string(round) + " set ";
        std::promise<void> started;
        std::atomic<int> answered{0};
        std::thread writer([&] {
            try {
                for (int number = 0;; ++number) {
                    if (number == 50) started.set_value();
                    properties->set(key(0), name + std::to_string(number));
                    ++answered;
                }
            } catch (const propertyapi::PropertyException&) {
            }
        });
        started.get_future().wait();
        EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
        writer.join();
        start();
        while (!isOnline()) std::this_thread::yield();
        properties->set(key(0), name + "end");
        ASSERT_TRUE(changes.waitFor(name + "end"));
        for (int number = 0; number < answered; ++number) {
            EXPECT_TRUE(changes.received(name + std::to_string(number))) << name << number << " of " << answered;
        }
    }
    bus->disconnect();
}

TEST_F(Restart, FailsSetsAtOnceWithoutARecoveryScope) {
    std::promise<void> halfWay;
    std::vector<std::string> failures;
    steady_clock::time_point end;
    std::thread writer([&] {
        failures = writeAll(halfWay);
        end = steady_clock::now();
    });
    halfWay.get_future().wait();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    const auto begin = steady_clock::now();
    writer.join();
    EXPECT_GT(failures.size(), 0U);
    EXPECT_LT(end - begin, 4s) << "the sets must not wait for the service";
}

TEST_F(Restart, WithSigtermLosesNoSetOfAPatientThread) {
    std::promise<void> halfWay;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::RecoveryScope scope;
        failures = writeAll(halfWay);
    });
    halfWay.get_future().wait();
    EXPECT_EQ(service->end(SIGTERM), 0);
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(storedValues(), sets);
}

TEST_F(Restart, OfServiceAndBrokerLosesNoSetOfAPatientThread) {
    std::promise<void> halfWay;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::RecoveryScope scope;
        failures = writeAll(halfWay);
    });
    halfWay.get_future().wait();
    broker.stop();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    broker.start();
    while (isOnline()) std::this_thread::yield();  // the new broker has no presence of the service
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(storedValues(), sets);
}

}  // namespace
