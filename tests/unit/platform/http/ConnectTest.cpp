// Connecting: timeouts, and addresses of both families.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <fstream>

#include "DownloadFixture.h"
#include "common/Descriptor.h"

namespace {

using namespace download;
using fakes::HttpAnswer;
using fakes::HttpServer;

TEST(CurlSettings, DefaultTimeouts) {
    const zav::CurlSettings settings;
    EXPECT_EQ(settings.connectTimeout, std::chrono::seconds(30));
    EXPECT_EQ(settings.stallTimeout, std::chrono::seconds(120));
}

// A listening socket whose queue is full, so that further connection attempts wait.
class FullListener {
 public:
    FullListener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(listener_.get(), any, length), 0);
        EXPECT_EQ(::listen(listener_.get(), 0), 0);
        EXPECT_EQ(::getsockname(listener_.get(), any, &length), 0);
        port_ = ntohs(address.sin_port);
        for (common::Descriptor& client : clients_) {
            client.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            static_cast<void>(::connect(client.get(), any, length));  // refused or in progress, as it comes
        }
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
    common::Descriptor listener_{::socket(AF_INET, SOCK_STREAM, 0)};
    std::array<common::Descriptor, 8> clients_;
    unsigned port_ = 0;
};

zav::CurlSettings withConnectTimeout() {
    zav::CurlSettings settings;
    settings.connectTimeout = std::chrono::seconds(1);
    return settings;
}

class ConnectTimeout : public Fixture {
 protected:
    ConnectTimeout() : Fixture(withConnectTimeout()) {}
};

TEST_F(ConnectTimeout, EndsAConnectionAttempt) {
    const FullListener full;
    EXPECT_EQ(fetch(full.url(), target), timedOut);
    EXPECT_EQ(curl->getHttpCode(), 0);
}

TEST_F(ConnectTimeout, IncludesTheTlsHandshake) {
    const fakes::TestAuthority authority;
    const HttpServer silent(authority.issue("127.0.0.1"), fakes::Flaw::silent);
    EXPECT_EQ(fetch(silent.url("/"), target), timedOut);
}

zav::CurlSettings withStallTimeout() {
    zav::CurlSettings settings;
    settings.stallTimeout = std::chrono::seconds(1);
    return settings;
}

class StallTimeout : public Fixture {
 protected:
    StallTimeout() : Fixture(withStallTimeout()) {}
};

TEST_F(StallTimeout, EndsAStalledTransfer) {
    server.on("/a", HttpAnswer::ok("content").stallingAfter(3, std::make_shared<fakes::Gate>()));
    EXPECT_EQ(fetch("/a"), timedOut);
    EXPECT_TRUE(namesIn(folder).empty());
}

// 64 KiB of it are enough.
TEST_F(StallTimeout, IsNotReachedBehindALongErrorPage) {
    const HttpAnswer page = HttpAnswer::error(404, std::string(200000, 'x'));
    server.on("/a", page.stallingAfter(100000, std::make_shared<fakes::Gate>()));
    EXPECT_EQ(fetch("/a"), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
}

class Addresses : public Fixture {
 protected:
    // "dual" has an IPv6 and an IPv4 address, in this order.
    Addresses() { std::ofstream("/etc/hosts", std::ios::app) << "::1 dual\n127.0.0.1 dual\n"; }

    int fetchFromDual(unsigned port) { return fetch("http://dual:" + std::to_string(port) + "/a", target); }
};

TEST_F(Addresses, Ipv6InBrackets) {
    HttpServer six("::1", 0);
    six.on("/a", HttpAnswer::ok("six"));
    EXPECT_EQ(fetch(six.url("/a"), target), ok);
    EXPECT_EQ(contentOf(target), "six");
    EXPECT_EQ(six.requests().at(0).header("Host"), "[::1]:" + std::to_string(six.port()));
}

TEST_F(Addresses, Ipv6ByName) {
    HttpServer six("::1", 0);
    six.on("/a", HttpAnswer::ok("six"));
    EXPECT_EQ(fetchFromDual(six.port()), ok);
}

TEST_F(Addresses, UnreachableAddressIsSkipped) {
    server.on("/a", HttpAnswer::ok("four"));
    EXPECT_EQ(fetchFromDual(server.port()), ok);
    EXPECT_EQ(contentOf(target), "four");
}

}  // namespace
