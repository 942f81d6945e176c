// The shipped access list in a real broker: each program can use the topics it needs, and no others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "Program.h"
#include "TemporaryFolder.h"
#include "catalogue/Catalogue.h"
#include "fakes/Broker.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

struct Client {
    Client(const std::string& name, const fakes::Broker& broker)
        : bus(ipc::IPCFactory::createInstanceShared(name, broker.address(), true)),
          properties(propertyapi::PropertyApiBuilder::getPropertyApi(bus, name)) {}
    ~Client() { bus->disconnect(); }

    const std::shared_ptr<ipc::IIPCClient> bus;
    const std::shared_ptr<propertyapi::IPropertyApi> properties;
    Recorder heard;
};

class Access : public testing::Test {
 protected:
    Access() {
        for (Client* client : {&daemon, &tool, &watchdog, &stranger}) {
            for (const char* filter : {"prop-service-state/#", "prop-service-audio/#", "+/watchdog", "watchdog/+"}) {
                client->bus->subscribe(filter, client->heard);
            }
            client->bus->connect(broker.address());
        }
        // The service may still be starting.
        for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
            try {
                tool.properties->get("State.Provisioning");
                return;
            } catch (const propertyapi::PropertyException&) {
                std::this_thread::yield();
            }
        }
    }

    // Publishes a change that every client may receive; it arrives after anything published before.
    void mark(const std::string& value) { tool.properties->set("State.Provisioning", value); }

    static std::string change(const std::string& value) {
        return "prop-service-state/State.Provisioning {\"param\":\"State.Provisioning\",\"value\":\"" + value +
               "\",\"source\":\"zavctl\"}";
    }

    const TemporaryFolder folder;
    fakes::Broker broker{"acl_file " ACCESS_LIST "\nmax_queued_messages 1000000\n"};
    Program service{{"--store", folder / "s.db", "--catalogue", SHIPPED_CATALOGUE, "--host", "127.0.0.1", "--port",
                     std::to_string(broker.port())}};
    Client daemon{"prov-client", broker};
    Client tool{"zavctl", broker};
    Client watchdog{"watchdog", broker};
    Client stranger{"stranger", broker};
};

TEST_F(Access, GivesDaemonAndToolTheTopicsTheyNeed) {
    daemon.properties->set("State.Provisioning.LockUI", "provisioning", "1");
    EXPECT_EQ(daemon.properties->get("State.Provisioning.LockUI"), "1");
    EXPECT_FALSE(tool.properties->list("System.", "").properties.empty());
    EXPECT_THAT(tool.bus->request("prop-service/describe", R"({"param":"NET.MAC.Address"})", "prop-service/status", 5s),
                HasSubstr("\"type\":\"mac\""));
    EXPECT_THAT(tool.bus->request("prop-service/import", R"({"properties":[]})", "prop-service/status", 5s),
                HasSubstr("\"accepted\":0"));
    EXPECT_THAT(daemon.heard.waitFor(1), ElementsAre(HasSubstr("State.Provisioning.LockUI")));
    EXPECT_THAT(tool.heard.waitFor(1), ElementsAre(HasSubstr("State.Provisioning.LockUI")));
    watchdog.bus->publish("watchdog/prov-client", "ping", 1);
    EXPECT_THAT(daemon.heard.waitFor(2).back(), "watchdog/prov-client ping");
    daemon.bus->publish("prov-client/watchdog", "alive", 1);
    EXPECT_THAT(watchdog.heard.waitFor(1), ElementsAre("prov-client/watchdog alive"));
}

TEST_F(Access, OnlyTheServicePublishesChanges) {
    for (Client* client : {&daemon, &tool, &watchdog, &stranger}) {
        client->bus->publish("prop-service-state/State.Provisioning", "forged", 1);
        client->bus->publish("prop-service/status", "offline", 1);
    }
    // Each client's refused messages reached the broker before its next request did.
    EXPECT_EQ(daemon.properties->get("State.Provisioning"), "");
    mark("x");
    EXPECT_THAT(daemon.heard.waitFor(1), ElementsAre(change("x")));
    EXPECT_EQ(tool.properties->get("State.Provisioning"), "x") << "the service is still online";
}

TEST_F(Access, LimitsClientsToTheirTopics) {
    EXPECT_THROW(daemon.bus->request("prop-service/import", R"({"properties":[]})", "prop-service/status", 300ms),
                 ipc::IPCException);
    EXPECT_THROW(
        watchdog.bus->request("prop-service/get", R"({"param":"NET.MAC.Address"})", "prop-service/status", 300ms),
        ipc::IPCException);
    EXPECT_THROW(
        stranger.bus->request("prop-service/get", R"({"param":"NET.MAC.Address"})", "prop-service/status", 300ms),
        ipc::IPCException);
    tool.properties->set("Audio.Ringer.Volume", "3");
    mark("x");
    // Two subscriptions, which have no order between them.
    EXPECT_THAT(tool.heard.waitFor(2), UnorderedElementsAre(HasSubstr("Audio.Ringer.Volume"), change("x")));
    EXPECT_THAT(daemon.heard.waitFor(1), ElementsAre(change("x"))) << "the daemon must not receive audio settings";
    daemon.bus->publish("prov-client/watchdog", "alive", 1);
    EXPECT_THAT(watchdog.heard.waitFor(1), ElementsAre("prov-client/watchdog alive"));
    EXPECT_THAT(stranger.heard.waitFor(0), testing::IsEmpty());
}

TEST(AccessList, CoversEveryGroupOfTheCatalogue) {
    std::set<std::string> lines;
    std::ifstream file(ACCESS_LIST);
    for (std::string line; std::getline(file, line);) lines.insert(line);
    const auto catalogue = propertyservice::Catalogue::load(SHIPPED_CATALOGUE);
    for (const auto& entry : catalogue.keys()) {
        std::string group(entry.key.substr(0, entry.key.find('.')));
        for (char& letter : group) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        EXPECT_EQ(lines.count("topic write prop-service-" + group + "/#"), 1U) << group;
        EXPECT_EQ(lines.count("topic read prop-service-" + group + "/#"), 1U) << group;
    }
}

}  // namespace
