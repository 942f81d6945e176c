// prop-service as a program: what it refuses to start with, and how it ends.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

#include "Program.h"
#include "Sanitized.h"
#include "TemporaryFolder.h"
#include "common/Descriptor.h"
#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

/// Lowers a limit, which programs that start meanwhile inherit.
class Limit {
 public:
    Limit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
        ::getrlimit(resource_, &before_);
        rlimit limit = before_;
        limit.rlim_cur = value;
        EXPECT_EQ(::setrlimit(resource_, &limit), 0);
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
    ~Limit() { ::setrlimit(resource_, &before_); }

 private:
    const __rlimit_resource resource_;
    rlimit before_{};
};

class PropServiceProgram : public testing::Test {
 protected:
    std::vector<std::string> arguments(const std::string& host) const {
        return {"--store", store, "--catalogue", SHIPPED_CATALOGUE, "--host", host};
    }
    std::string errors() const {
        std::ifstream file(folder / "errors");
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    /// Waits until the program has logged the text.
    bool logs(const std::string& text) const {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (errors().find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::yield();
        }
        return true;
    }

    const TemporaryFolder folder;
    const std::string store = folder / "s.db";
};

TEST_F(PropServiceProgram, RefusesAStoreInUse) {
    fakes::Broker broker;
    Program first(arguments(broker.address()), folder / "first");
    const auto bus = ipc::IPCFactory::createInstanceShared("test", broker.address(), true);
    const auto properties = propertyapi::PropertyApiBuilder::getPropertyApi(bus, "test");
    bus->connect(broker.address());
    const auto end = std::chrono::steady_clock::now() + 20s;
    bool isSet = false;
    while (!isSet && std::chrono::steady_clock::now() < end) {
        try {
            properties->set("System.General.Location", "here");  // also makes a backup
            isSet = true;
        } catch (const propertyapi::PropertyException&) {
            std::this_thread::yield();
        }
    }
    ASSERT_TRUE(isSet);
    {
        Program second(arguments(broker.address()), folder / "errors");
        EXPECT_EQ(second.wait(), 4);
        EXPECT_THAT(errors(), HasSubstr("prop-service: " + store));
        EXPECT_THAT(errors(), HasSubstr("another process uses it"));
    }
    std::fstream(store, std::ios::in | std::ios::out | std::ios::binary) << "garbage garbage garbage";
    {
        Program second(arguments(broker.address()), folder / "errors");
        EXPECT_EQ(second.wait(), 4);
        EXPECT_THAT(errors(), HasSubstr("another process uses it, and it is damaged"));
    }
    EXPECT_EQ(properties->get("System.General.Location"), "here");
    EXPECT_EQ(first.end(SIGTERM), 0);
}

TEST_F(PropServiceProgram, RefusesAStoreThatIsNotAFile) {
    Program service({"--store", "/dev/null", "--catalogue", SHIPPED_CATALOGUE}, folder / "errors");
    EXPECT_EQ(service.wait(), 4);
    EXPECT_THAT(errors(), HasSubstr("prop-service: /dev/null: is not a regular file"));
}

TEST_F(PropServiceProgram, RefusesALinkThatLeadsInCircles) {
    std::filesystem::create_symlink("b", folder / "a");
    std::filesystem::create_symlink("a", folder / "b");
    Program service({"--store", folder / "a", "--catalogue", SHIPPED_CATALOGUE}, folder / "errors");
    EXPECT_EQ(service.wait(), 4);
    EXPECT_THAT(errors(), HasSubstr("cannot be opened for writing: Too many levels of symbolic links"));
}

TEST_F(PropServiceProgram, RefusesACatalogueThatIsAFolder) {
    Program service({"--store", store, "--catalogue", folder / ""}, folder / "errors");
    EXPECT_EQ(service.wait(), 3);
    EXPECT_THAT(errors(), HasSubstr(folder / "" + std::string(": cannot be read")));
    EXPECT_FALSE(std::filesystem::exists(store));
}

TEST_F(PropServiceProgram, NamesAKeyThatIsDefinedTwice) {
    std::ofstream(folder / "twice.json") << R"({"version": 1, "keys": {
"A.{0-1}": {"type": "text", "default": "", "description": "One."},
"A.1": {"type": "text", "default": "", "description": "Two."}}})";
    Program service({"--store", store, "--catalogue", folder / "twice.json"}, folder / "errors");
    EXPECT_EQ(service.wait(), 3);
    EXPECT_THAT(errors(), HasSubstr("twice.json:3: A.1: duplicate key, first defined in line 2"));
}

TEST_F(PropServiceProgram, FailsIfNoThreadCanBeStarted) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs what is missing here";
    int status = 0;
    {
        const Limit stack(RLIMIT_STACK, rlim_t{1} << 47);  // of a thread: more than there are addresses
        Program service(arguments("localhost"), folder / "errors");
        status = service.wait();
    }
    EXPECT_EQ(status, 1);
    EXPECT_THAT(errors(), HasSubstr("prop-service: Resource temporarily unavailable"));
}

/// A socket that listens on the loopback address of one family, on a port of its own.
class Listener {
 public:
    explicit Listener(int family) : socket_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 address{};  // larger than sockaddr_in, and its port is in the same place
        address.sin6_family = static_cast<sa_family_t>(family);
        if (family == AF_INET6) {
            address.sin6_addr = in6addr_loopback;
        } else {
            reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (::bind(socket_.get(), any, length) == 0 && ::listen(socket_.get(), 1) == 0 &&
            ::getsockname(socket_.get(), any, &length) == 0) {
            port_ = ntohs(address.sin6_port);
        }
    }
    int port() const { return port_; }  // 0: the machine does not have this family

    /// Whether a client sends MQTT's CONNECT. It looks first whether anything listens, with a connection of its own.
    bool hearsClient() const {
        constexpr int most = 10;
        for (int count = 0; count < most; ++count) {
            pollfd ready{socket_.get(), POLLIN, 0};
            if (::poll(&ready, 1, 20000) != 1) return false;
            const common::Descriptor connection(::accept(socket_.get(), nullptr, nullptr));
            unsigned char byte = 0;
            if (::recv(connection.get(), &byte, 1, 0) == 1) return byte == 0x10;
        }
        return false;
    }

 private:
    const common::Descriptor socket_;
    int port_ = 0;
};

TEST_F(PropServiceProgram, ConnectsToAnIpv6Address) {
    for (const bool isSeparate : {false, true}) {
        const Listener broker(AF_INET6);
        if (broker.port() == 0) GTEST_SKIP() << "this machine has no IPv6";
        const std::string port = std::to_string(broker.port());
        std::vector<std::string> all = arguments(isSeparate ? "[::1]" : "[::1]:" + port);
        if (isSeparate) all.insert(all.end(), {"--port", port});
        Program service(all, folder / "errors");
        EXPECT_TRUE(broker.hearsClient()) << errors();
        EXPECT_EQ(service.end(SIGTERM), 0);
    }
}

TEST_F(PropServiceProgram, WithFewDescriptorsFailsWithAReason) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs what is missing here";
    constexpr int notLoaded = 127;  // fewer than its libraries need
    int failures = 0;
    for (rlim_t count = 4; count < 9; ++count) {
        std::filesystem::remove(folder / "errors");
        std::optional<Limit> descriptors;
        descriptors.emplace(RLIMIT_NOFILE, count);
        Program service(arguments("localhost"), folder / "errors");
        descriptors.reset();
        const int status = service.wait();
        if (status == notLoaded) continue;
        ++failures;
        EXPECT_THAT(status, testing::AnyOf(1, 3, 4)) << count << ": " << errors();
        EXPECT_THAT(errors(), HasSubstr("prop-service: ")) << count;
    }
    EXPECT_GT(failures, 2);
    EXPECT_EQ(Program({"--version"}).wait(), 0);
}

TEST_F(PropServiceProgram, IsStoppedOnceByTwoSignals) {
    fakes::Broker broker;
    Program service(arguments(broker.address()), folder / "errors");
    ASSERT_TRUE(logs("Serving ")) << errors();
    broker.freeze();  // so that the stop takes a while
    service.freeze();
    service.signal(SIGINT);
    service.signal(SIGTERM);
    service.thaw();
    EXPECT_EQ(service.wait(), 0);
    EXPECT_THAT(errors(), HasSubstr("Stopped"));
    broker.thaw();
}

}  // namespace
