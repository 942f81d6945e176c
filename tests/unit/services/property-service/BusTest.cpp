// Integration tests of the program on a real broker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "Program.h"
#include "TemporaryFolder.h"
#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

class PropService : public testing::Test {
 protected:
    std::vector<std::string> arguments() const {
        return {"--store", folder / "s.db", "--catalogue", SHIPPED_CATALOGUE,
                "--host",  "127.0.0.1",     "--port",      std::to_string(broker.port())};
    }

    // Retries the call until the service is online.
    template <typename Call>
    auto retryUntilOnline(Call call) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (true) {
            try {
                return call();
            } catch (const propertyapi::PropertyOfflineException&) {
                if (std::chrono::steady_clock::now() > end) throw;
                std::this_thread::yield();
            } catch (const propertyapi::PropertyTimeoutException&) {
                if (std::chrono::steady_clock::now() > end) throw;
            }
        }
    }

    void connect() { bus->connect(broker.address()); }

    const TemporaryFolder folder;
    fakes::Broker broker{"max_queued_messages 0\n"};
    const std::shared_ptr<ipc::IIPCClient> bus = ipc::IPCFactory::createInstanceShared("test", broker.address(), true);
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "test");
};

TEST_F(PropService, KeepsSettingsAcrossAnOrderlyRestart) {
    Recorder changes;
    bus->subscribe("prop-service-system/#", changes);
    {
        Program service(arguments());
        connect();
        EXPECT_EQ(retryUntilOnline([this] { return properties->get("System.General.DeviceID"); }), "kd4v");
        properties->set("System.Provision.Period", "provisioning", "-1");
        properties->set("State.Provisioning.LockUI", "1");
        properties->set("State.Provisioning", "success");
        EXPECT_THROW(properties->set("State.Provisioning", "provisioning", "request"),
                     propertyapi::PropertyReadOnlyException);
        EXPECT_THROW(properties->set("State.FirmwareUpdate.TriggerAuto", "provisioning", "request"),
                     propertyapi::PropertyReadOnlyException);
        EXPECT_EQ(properties->get("State.Provisioning"), "success");
        EXPECT_EQ(properties->get("System.Provision.Period"), "-1");
        EXPECT_THROW(properties->get("No.Such"), propertyapi::PropertyNotFoundException);
        EXPECT_THROW(properties->set("NET.VLAN.LAN.Identifier", "5000"), propertyapi::PropertyInvalidValueException);
        EXPECT_THAT(
            changes.waitFor(1),
            ElementsAre("prop-service-system/System.Provision.Period "
                        "{\"param\":\"System.Provision.Period\",\"value\":\"-1\",\"source\":\"provisioning\"}"));
        EXPECT_EQ(service.end(SIGTERM), 0);
    }
    EXPECT_THROW(properties->get("System.Provision.Period"), propertyapi::PropertyOfflineException);
    Program service(arguments());
    EXPECT_EQ(retryUntilOnline([this] { return properties->get("System.Provision.Period"); }), "-1");
    EXPECT_EQ(properties->get("State.Provisioning.LockUI"), "0");
    EXPECT_EQ(service.end(SIGINT), 0);
}

TEST_F(PropService, AcceptsAPortInTheHost) {
    connect();
    for (const std::string& host : {broker.address(), "[127.0.0.1]:" + std::to_string(broker.port())}) {
        Program service({"--store", folder / "s.db", "--catalogue", SHIPPED_CATALOGUE, "--host", host});
        EXPECT_EQ(retryUntilOnline([this] { return properties->get("System.General.DeviceID"); }), "kd4v") << host;
        EXPECT_EQ(service.end(SIGTERM), 0);
    }
}

TEST_F(PropService, KeepsAnsweredSetsWhenKilled) {
    connect();
    for (int round = 1; round <= 3; ++round) {
        Program service(arguments());
        std::string last;
        for (int number = 0; number < 50; ++number) {
            last = std::to_string(round * 1000 + number);
            retryUntilOnline([&] {
                properties->set("System.General.Location", last);
                return 0;
            });
        }
        EXPECT_EQ(service.end(SIGKILL), -SIGKILL);
        Program again(arguments());
        EXPECT_EQ(retryUntilOnline([this] { return properties->get("System.General.Location"); }), last);
        EXPECT_EQ(again.end(SIGTERM), 0);
    }
}

TEST_F(PropService, SurvivesBrokerRestarts) {
    broker.stop();
    Program service(arguments());  // the broker is down when it starts
    broker.start();
    connect();
    EXPECT_EQ(retryUntilOnline([this] { return properties->get("System.General.DeviceID"); }), "kd4v");
    properties->set("State.Provisioning", "success");
    broker.stop();
    broker.start();
    EXPECT_EQ(retryUntilOnline([this] { return properties->get("State.Provisioning"); }), "success");
    EXPECT_EQ(service.end(SIGTERM), 0);
}

TEST_F(PropService, AnswersConcurrentCalls) {
    Program service(arguments());
    connect();
    retryUntilOnline([this] { return properties->get("System.General.DeviceID"); });
    std::vector<std::thread> clients;
    for (int client = 0; client < 8; ++client) {
        clients.emplace_back([this, client] {
            const std::string key = "PhoneUI.Keys.FunctionKeys." + std::to_string(client) + ".Label";
            for (int number = 0; number < 100; ++number) {
                properties->set(key, std::to_string(number));
                EXPECT_EQ(properties->get(key), std::to_string(number));
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(service.end(SIGTERM), 0);
}

struct Start {
    const char* name;
    std::vector<std::string> arguments;
    int status;
    const char* error;
};

class PropServiceStart : public testing::TestWithParam<Start> {};

TEST_P(PropServiceStart, ExitsWithStatusAndMessage) {
    const TemporaryFolder folder;
    std::ofstream(folder / "bad.json") << "{\"version\": 1,\n \"keys\": {\"a\": {\"type\": \"x\"}}}";
    std::ofstream(folder / "bad.db") << "no database";
    std::vector<std::string> arguments = GetParam().arguments;
    for (std::string& argument : arguments) {
        if (argument.compare(0, 2, "%/") == 0) argument = folder / argument.substr(2);
    }
    Program service(arguments, folder / "errors");
    EXPECT_EQ(service.wait(), GetParam().status);
    std::ifstream file(folder / "errors");
    const std::string errors{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    EXPECT_THAT(errors, HasSubstr(GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    All, PropServiceStart,
    testing::Values(
        Start{"Help", {"--help"}, 0, "/var/lib/zav/properties.db"}, Start{"Version", {"--version"}, 0, "prop-service "},
        Start{"UnknownOption", {"--frob"}, 2, "--frob"}, Start{"BadPort", {"--port", "70000"}, 2, "--port"},
        Start{"BadHost",
              {"--host", "localhost:0"},
              2,
              "--host: \"localhost:0\" is not a broker's address: the port must be"},
        Start{
            "BadBracket", {"--host", "[::1"}, 2, "--host: \"[::1\" is not a broker's address: the closing bracket is"},
        Start{"TwoPorts", {"--host", "localhost:1", "--port", "2"}, 2, "--port: --host already has a port"},
        Start{"NoCatalogue", {"--store", "%/s.db", "--catalogue", "%/none.json"}, 3, "none.json: cannot be opened"},
        Start{"BadCatalogue", {"--store", "%/s.db", "--catalogue", "%/bad.json"}, 3, "bad.json:2: a: unknown type"},
        Start{"BadStore",
              {"--store", "%/bad.db", "--catalogue", SHIPPED_CATALOGUE},
              4,
              "bad.db: is not a property store"},
        Start{"NoStore", {"--store", "/proc/no/s.db", "--catalogue", SHIPPED_CATALOGUE}, 4, "/proc/no/s.db: "}),
    [](const auto& row) { return row.param.name; });

}  // namespace
