#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "Phone.h"

namespace zavctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Runs `zavctl watch …` on its own thread until `end`.
class Watch {
 public:
    Watch(Phone& phone, const std::vector<std::string>& arguments)
        : phone_(phone), thread_([this, arguments] { code_ = phone_.run(arguments); }) {
        while (phone_.bus->filters().size() < 2) std::this_thread::yield();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { end(); }

    ExitCode end() {
        phone_.stopSignal.stop();
        if (thread_.joinable()) thread_.join();
        return code_;
    }

 private:
    Phone& phone_;
    ExitCode code_ = ExitCode::failed;
    std::thread thread_;
};

fakes::FakeProperties::Values values() { return {{"System.Name", ""}, {"State.Provisioning", ""}}; }

TEST(Watch, PrintsChangesInOrderUntilStopped) {
    Phone phone(values());
    Watch watch(phone, {"watch"});
    EXPECT_THAT(phone.bus->filters(), ElementsAre("+/+", "prop-service/status"));
    phone.properties->set("System.Name", "zavctl", "a");
    phone.properties->set("State.Provisioning", "", "b\n");
    phone.bus->deliver("prop-service/set", changeText("System.Name", "a request", ""));
    phone.bus->deliver("prop-service-system/System.Name", "not JSON");
    phone.bus->deliver("prop-service-system/System.Name", "[1]");
    EXPECT_EQ(watch.end(), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "System.Name=a  (zavctl)\nState.Provisioning=b\\n\n");
    EXPECT_EQ(phone.err.str(), "");
    EXPECT_TRUE(phone.catching);
}

TEST(Watch, PrintsOneJsonObjectPerLine) {
    Phone phone(values());
    Watch watch(phone, {"watch", "--json"});
    phone.properties->set("System.Name", "w", "ä\n");
    phone.properties->set("System.Name", "", "");
    EXPECT_EQ(watch.end(), ExitCode::done);
    EXPECT_EQ(phone.out.str(),
              "{\"param\":\"System.Name\",\"source\":\"w\",\"value\":\"ä\\n\"}\n"
              "{\"param\":\"System.Name\",\"source\":\"\",\"value\":\"\"}\n");
}

TEST(Watch, SubscribesOnlyToTheGroupOfThePrefix) {
    Phone phone(values());
    Watch watch(phone, {"watch", "State.Prov"});
    EXPECT_THAT(phone.bus->filters(), ElementsAre("prop-service-state/#", "prop-service/status"));
    phone.properties->set("State.Provisioning", "", "x");
    phone.properties->set("System.Name", "", "y");
    EXPECT_EQ(watch.end(), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "State.Provisioning=x\n");
}

TEST(Watch, WarnsAboutAPrefixWithoutMatchAndALostConnection) {
    Phone phone(values());
    Watch watch(phone, {"watch", "Nothing"});
    phone.bus->cut();
    EXPECT_EQ(watch.end(), ExitCode::done);
    EXPECT_THAT(phone.err.str(), HasSubstr("no key begins with \"Nothing\""));
    EXPECT_THAT(phone.err.str(), HasSubstr("connection lost, changes may be missing: cut"));
}

TEST(Watch, WarnsWhenThePropertyServiceGoesOffline) {
    Phone phone(values());
    Watch watch(phone, {"watch"});
    for (const char* const presence : {"offline", "online", "online", "offline", "offline", "online"}) {
        phone.bus->deliver("prop-service/status", presence);
    }
    phone.bus->deliver("another/status", "offline");
    EXPECT_EQ(watch.end(), ExitCode::done);
    EXPECT_EQ(phone.err.str(), "zavctl: the property service went offline, changes may be missing\n");
}

TEST(Watch, EndsWhenTheOutputIsClosed) {
    Phone phone(values());
    phone.out.setstate(std::ios::badbit);
    std::thread writer([&phone] {
        while (phone.bus->filters().empty()) std::this_thread::yield();
        phone.properties->set("System.Name", "", "a");
    });
    EXPECT_EQ(phone.run({"watch"}), ExitCode::failed);
    writer.join();
}

}  // namespace
}  // namespace zavctl
