// What becomes of a property call whose connection breaks between request and answer.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ipc/IIPCClient.h"
#include "ipc/IPCException.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

// A bus that answers what it was told to, in order, and records what it was asked.
class ScriptedBus final : public ipc::IIPCClient {
 public:
    using Answer = std::function<std::string()>;

    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string&, const std::string&, int) override {}
    void watchPresence(const std::string&) override {}
    std::string request(const std::string& topic, const std::string&, const std::string&,
                        std::chrono::milliseconds) override {
        asked.push_back(topic);
        if (answers.empty()) throw ipc::IPCTimeoutException("nothing more to say");
        const Answer answer = answers.front();
        answers.pop_front();
        return answer();
    }

    std::deque<Answer> answers;
    std::vector<std::string> asked;
};

using Topics = std::vector<std::string>;

std::string broken() { throw ipc::IPCInterruptedException("the connection broke"); }

ScriptedBus::Answer value(const std::string& text) {
    return [text] { return R"({"param":"A.Key","value":")" + text + R"("})"; };
}

class Interrupted : public testing::Test {
 protected:
    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
};

TEST_F(Interrupted, GetIsAskedAgain) {
    bus->answers = {broken, broken, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/get", "prop-service/get", "prop-service/get"}));
}

TEST_F(Interrupted, ListIsAskedAgain) {
    bus->answers = {broken, [] { return std::string(R"({"properties":[]})"); }};
    EXPECT_TRUE(properties->list("A.", "").properties.empty());
}

TEST_F(Interrupted, SetThatWasCarriedOutIsNotMadeAgain) {
    bus->answers = {broken, value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/set", "prop-service/get"}));
}

TEST_F(Interrupted, SetThatWasNotCarriedOutIsMadeAgain) {
    bus->answers = {broken, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/set", "prop-service/get", "prop-service/set"}));
}

TEST_F(Interrupted, SetThatIsInterruptedTwiceIsNotKnown) {
    bus->answers = {broken, value("old"), broken};
    EXPECT_THROW(properties->set("A.Key", "new"), propertyapi::PropertyTimeoutException);
}

TEST_F(Interrupted, CallWhoseServiceStaysAwayFails) {
    bus->answers = {broken, []() -> std::string { throw ipc::IPCOfflineException("no connection"); }};
    EXPECT_THROW(properties->get("A.Key"), propertyapi::PropertyOfflineException);
}

}  // namespace
