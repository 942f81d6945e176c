// The property service killed while a client writes to it, and started again: what a patient thread loses, and what
// any other is told.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Program.h"
#include "TemporaryFolder.h"
#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PatientCalls.h"
#include "propertyapi/PropertyApiBuilder.h"

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
        while (!isThere()) std::this_thread::yield();
    }

    void start() {
        service = std::make_unique<Program>(std::vector<std::string>{"--store", folder / "s.db", "--catalogue",
                                                                     folder / "catalogue.json", "--host", "127.0.0.1",
                                                                     "--port", std::to_string(broker.port())});
    }

    bool isThere() {
        try {
            properties->get(key(0));
            return true;
        } catch (const PropertyOfflineException&) {
            return false;
        }
    }

    /// Writes every number to its key; says so in the middle, and returns why sets failed.
    std::vector<std::string> writeAll(std::promise<void>& inTheMiddle) {
        std::vector<std::string> failures;
        for (int number = 0; number < sets; ++number) {
            if (number == sets / 2) inTheMiddle.set_value();
            try {
                properties->set(key(number), std::to_string(number));
            } catch (const propertyapi::PropertyException& error) {
                failures.emplace_back(error.what());
            }
        }
        return failures;
    }

    int valuesThatAreThere() {
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
    std::promise<void> inTheMiddle;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::PatientCalls patient;
        failures = writeAll(inTheMiddle);
    });
    inTheMiddle.get_future().wait();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    while (isThere()) std::this_thread::yield();
    // This thread is not patient.
    const auto begin = steady_clock::now();
    EXPECT_THROW(properties->set(key(0), "0"), PropertyOfflineException);
    EXPECT_LT(steady_clock::now() - begin, 2s);
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(valuesThatAreThere(), sets);
}

TEST_F(Restart, FailsTheSetsOfAnImpatientThreadAtOnce) {
    std::promise<void> inTheMiddle;
    std::vector<std::string> failures;
    steady_clock::time_point end;
    std::thread writer([&] {
        failures = writeAll(inTheMiddle);
        end = steady_clock::now();
    });
    inTheMiddle.get_future().wait();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    const auto begin = steady_clock::now();
    writer.join();
    EXPECT_GT(failures.size(), 0U);
    EXPECT_LT(end - begin, 4s) << "it waited";
}

TEST_F(Restart, IsOutlastedByAPatientThreadWhenItIsOrderlyToo) {
    std::promise<void> inTheMiddle;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::PatientCalls patient;
        failures = writeAll(inTheMiddle);
    });
    inTheMiddle.get_future().wait();
    EXPECT_EQ(service->end(SIGTERM), 0);
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(valuesThatAreThere(), sets);
}

TEST_F(Restart, OfServiceAndBrokerIsOutlastedByAPatientThread) {
    std::promise<void> inTheMiddle;
    std::vector<std::string> failures;
    std::thread writer([&] {
        const propertyapi::PatientCalls patient;
        failures = writeAll(inTheMiddle);
    });
    inTheMiddle.get_future().wait();
    broker.stop();
    EXPECT_EQ(service->end(SIGKILL), -SIGKILL);
    broker.start();
    while (isThere()) std::this_thread::yield();  // the new broker knows nothing of the service
    start();
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
    EXPECT_EQ(valuesThatAreThere(), sets);
}

}  // namespace
