// What the bus client says about a broker that does not accept it.
#include <gtest/gtest.h>

#include "BusFixtures.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using fakes::Broker;

std::string reasonOfConnecting(const std::string& address) {
    const auto client = newClient("stranger");
    try {
        client->connect(address);
    } catch (const ipc::IPCException& error) {
        return error.what();
    }
    return "connected";
}

TEST(ConnectReason, SaysThatThereIsNoBroker) {
    const std::string reason = reasonOfConnecting("127.0.0.1:" + std::to_string(fakes::freePort()));
    EXPECT_NE(reason.find("Connection refused"), std::string::npos) << reason;
}

TEST(ConnectReason, HasTheReasonOfTheBroker) {
    const Broker broker("allow_anonymous false\n");
    const std::string reason = reasonOfConnecting(broker.address());
    EXPECT_NE(reason.find("uthori"), std::string::npos) << reason;
}

}  // namespace
