#include "ipc/Address.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "System.h"
#include "ipc/IPCException.h"

namespace {

TEST(Address, ErrorIsEmptyForAValidAddress) {
    EXPECT_EQ(ipc::addressError("localhost:1883"), "");
    EXPECT_NE(ipc::addressError("localhost:port").find("localhost:port"), std::string::npos);
}

TEST(Address, ReadsHostAndPort) {
    const struct {
        const char* text;
        const char* host;
        int port;
    } rows[] = {
        {"localhost", "localhost", 1883}, {"localhost:1884", "localhost", 1884}, {"10.0.0.7:1", "10.0.0.7", 1},
        {"[::1]", "::1", 1883},           {"[::1]:65535", "::1", 65535},         {"::1", "::1", 1883},
    };
    for (const auto& row : rows) {
        const ipc::Address address = ipc::parseAddress(row.text);
        EXPECT_EQ(address.host, row.host) << row.text;
        EXPECT_EQ(address.port, row.port) << row.text;
        EXPECT_EQ(address.hasPort, row.port != 1883) << row.text;
    }
}

TEST(Address, RefusesInvalidAddresses) {
    for (const char* text : {"", ":1883", "localhost:", "localhost:0", "localhost:65536", "localhost:18x",
                             "localhost:-1", "[::1", "[::1]x", "[]:1"}) {
        EXPECT_THROW(ipc::parseAddress(text), ipc::IPCException) << text;
    }
}

TEST(Address, ErrorHasTheTextAndTheReason) {
    const struct {
        const char* text;
        const char* reason;
    } rows[] = {
        {"", "\"\" is not a broker's address: the host is missing"},
        {":1883", "\":1883\" is not a broker's address: the host is missing"},
        {"h:65536", "\"h:65536\" is not a broker's address: the port must be a number from 1 to 65535"},
        {"[::1", "\"[::1\" is not a broker's address: the closing bracket is missing"},
        {"[::1]x", "\"[::1]x\" is not a broker's address: only :PORT may follow the bracket"},
    };
    for (const auto& row : rows) {
        try {
            ipc::parseAddress(row.text);
            ADD_FAILURE() << row.text;
        } catch (const ipc::IPCException& error) {
            EXPECT_STREQ(error.what(), row.reason);
        }
    }
}

TEST(Address, LocalhostIsTheLoopbackAddressIPv4First) {
    std::string failure;
    const auto addresses = ipc::resolve(ipc::parseAddress("localhost"), failure);
    ASSERT_FALSE(addresses.empty());
    EXPECT_EQ(addresses.front(), "127.0.0.1");
    for (std::size_t i = 1; i < addresses.size(); ++i) EXPECT_EQ(addresses[i], "::1");
    EXPECT_LE(addresses.size(), 2U);
}

TEST(Address, ResolvesOtherNamesThroughTheNameServices) {
    std::string failure;
    const auto addresses = ipc::resolve(ipc::parseAddress("127.0.0.1"), failure);
    EXPECT_EQ(addresses, std::vector<std::string>{"127.0.0.1"});
}

TEST(Address, ReportsWhyAHostHasNoAddress) {
    std::string failure;
    EXPECT_TRUE(ipc::resolve(ipc::parseAddress("no such host"), failure).empty());
    EXPECT_FALSE(failure.empty());
}

}  // namespace
