#include "Core/Utils.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "common/Execute.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/Utils";

class UtilsTest : public testing::Test {
 protected:
    tests::Phone phone_;
};

struct PeriodRow {
    const char* text;
    unsigned seconds;
    const char* warning;  // or null
};

class PeriodTest : public testing::TestWithParam<PeriodRow> {
 protected:
    tests::Phone phone_;
};

constexpr const char* tooShort = "Period must be at least 10 min., setting period to 10 min.";
constexpr const char* tooLong = "Period must be no longer than 24h, setting period to 24h";

TEST_P(PeriodTest, IsClampedToTheLimits) {
    EXPECT_EQ(zav::checkPeriod(GetParam().text), GetParam().seconds);
    Lines expected;
    if (GetParam().warning != nullptr) expected.push_back(warning(source, GetParam().warning));
    EXPECT_EQ(phone_.log.lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(Table, PeriodTest,
                         testing::Values(PeriodRow{"0", 0, nullptr}, PeriodRow{"1", 600, tooShort},
                                         PeriodRow{"599", 600, tooShort}, PeriodRow{"600", 600, nullptr},
                                         PeriodRow{"86400", 86400, nullptr}, PeriodRow{"86401", 86400, tooLong},
                                         PeriodRow{"-1", 86400, tooLong}, PeriodRow{" 700", 700, nullptr},
                                         PeriodRow{"700 seconds", 700, nullptr},
                                         PeriodRow{"2147483647", 86400, tooLong},
                                         PeriodRow{"-2147483648", 86400, tooLong}));

TEST_F(UtilsTest, NonNumericPeriodThrows) {
    EXPECT_THROW(zav::checkPeriod(""), std::invalid_argument);
    EXPECT_THROW(zav::checkPeriod("soon"), std::invalid_argument);
    EXPECT_THROW(zav::checkPeriod("99999999999"), std::out_of_range);
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(UtilsTest, ReportsAnErrorOnceUntilItIsCleared) {
    std::string last;
    zav::reportErrorOnce(last, "first", 1);
    zav::reportErrorOnce(last, "first", 1);
    zav::reportErrorOnce(last, "second", 2);
    zav::clearReportedError(last, false);
    zav::reportErrorOnce(last, "second", 2);
    zav::clearReportedError(last, true);
    EXPECT_EQ(last, "");
    zav::reportErrorOnce(last, "second", 2);
    EXPECT_EQ(phone_.log.lines(), (Lines{error(source, "first"), error(source, "second"), error(source, "second")}));
}

/// A list of fake network interfaces.
class Interfaces {
 public:
    Interfaces& add(const char* name, unsigned flags) {
        entries_.push_back({});
        names_.emplace_back(name);
        flags_.push_back(flags);
        return *this;
    }
    const ifaddrs* list() {
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            entries_[i].ifa_name = names_[i].data();
            entries_[i].ifa_flags = flags_[i];
            entries_[i].ifa_next = i + 1 < entries_.size() ? &entries_[i + 1] : nullptr;
        }
        return entries_.empty() ? nullptr : entries_.data();
    }

 private:
    std::vector<ifaddrs> entries_;
    std::vector<std::string> names_;
    std::vector<unsigned> flags_;
};

TEST_F(UtilsTest, InterfaceIsUpIfItIsUpAndRunning) {
    EXPECT_TRUE(zav::isNetworkInterfaceUp(Interfaces().add("eth0", IFF_UP | IFF_RUNNING | IFF_BROADCAST).list()));
    EXPECT_FALSE(zav::isNetworkInterfaceUp(Interfaces().add("eth0", IFF_UP).list()));
    EXPECT_FALSE(zav::isNetworkInterfaceUp(Interfaces().add("eth0", IFF_RUNNING).list()));
    EXPECT_FALSE(zav::isNetworkInterfaceUp(Interfaces().add("eth0", 0).list()));
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(UtilsTest, UsesTheFirstInterfaceNamedLikeEth) {
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    EXPECT_FALSE(zav::isNetworkInterfaceUp(Interfaces().add("lo", up).add("veth0", 0).add("eth0", up).list()));
    EXPECT_TRUE(zav::isNetworkInterfaceUp(Interfaces().add("lo", 0).add("veth0", up).add("eth0", 0).list()));
}

TEST_F(UtilsTest, LogsAMissingWiredInterfaceEachTime) {
    EXPECT_FALSE(zav::isNetworkInterfaceUp(Interfaces().add("lo", IFF_UP | IFF_RUNNING).add("wlan0", 0).list()));
    EXPECT_FALSE(zav::isNetworkInterfaceUp(nullptr));
    const auto line = error(source, "Could not get network interfaces");
    EXPECT_EQ(phone_.log.lines(), (Lines{line, line}));
}

/// A TCP socket on a free port.
class Port {
 public:
    explicit Port(std::uint16_t number = 0) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.sin_port = htons(number);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
        socklen_t size = sizeof address_;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size);
    }
    ~Port() { close(socket_); }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    void open() const { EXPECT_EQ(listen(socket_, 8), 0); }
    addrinfo info(addrinfo* next = nullptr) {
        addrinfo entry{};
        entry.ai_family = AF_INET;
        entry.ai_socktype = SOCK_STREAM;
        entry.ai_protocol = IPPROTO_TCP;
        entry.ai_addr = reinterpret_cast<sockaddr*>(&address_);
        entry.ai_addrlen = sizeof address_;
        entry.ai_next = next;
        return entry;
    }

 private:
    int socket_;
    sockaddr_in address_{};
};

TEST_F(UtilsTest, ConnectsToTheFirstAddressThatAccepts) {
    Port closed;
    Port open;
    open.open();
    addrinfo second = open.info();
    addrinfo first = closed.info(&second);
    addrinfo noSocket = first;
    noSocket.ai_family = 4711;
    noSocket.ai_next = &first;
    EXPECT_TRUE(zav::canConnect(&noSocket, "the host"));
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "Successfully connected to the host")});
}

// Runs in a new network namespace, in which no interface is up until the test sets it up.
TEST_F(UtilsTest, ServerIsReachableOnceInterfaceAndServerAreUp) {
    const auto notReady = error(source, "Network interface is not ready yet");
    const auto noInterface = error(source, "Could not get network interfaces");
    const auto checking = info(source, "Network interface is ready. Checking server address...");
    const auto refused = error(source, "Connection to 127.0.0.1 can not be performed");
    const auto connected = info(source, "Successfully connected to 127.0.0.1");
    std::thread([&] {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "run me in lab/sandbox";
        const auto run = [](const std::string& command) { os::execute(command, std::chrono::seconds(20)); };
        run("ip link set lo up");
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_EQ(phone_.log.lines(), (Lines{noInterface, notReady, noInterface}));

        run("ip link add eth0 type veth peer name wire && ip link set wire up && ip link set eth0 up");
        // The kernel reports the interface as running a moment later.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!zav::isNetworkInterfaceUp() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        phone_.log.forget();
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_EQ(phone_.log.lines(), (Lines{checking, refused, checking}));
        {
            const Port web(80);
            web.open();
            phone_.log.forget();
            EXPECT_TRUE(zav::isServerReachable());
            EXPECT_EQ(phone_.log.lines(), (Lines{checking, connected}));
        }
        phone_.log.forget();
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_EQ(phone_.log.lines(), (Lines{checking, refused})) << "a success must clear the reported error";
    }).join();
}

/// While an object exists, the process cannot open descriptors.
class NoDescriptors {
 public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int lowestFree = dup(0);
        close(lowestFree);
        const rlimit full{static_cast<rlim_t>(lowestFree), before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
    rlimit before_{};
};

TEST_F(UtilsTest, LogsAFailedInterfaceListEachTime) {
    const auto line = error(source, "Could not get network interfaces list");
    {
        const NoDescriptors none;
        EXPECT_FALSE(zav::isNetworkInterfaceUp());
        EXPECT_FALSE(zav::isServerReachable());
    }
    EXPECT_EQ(phone_.log.count(line), 2U);
    EXPECT_EQ(phone_.log.count(info(source, "Network interface is ready. Checking server address...")), 0U);
}

// Runs in new namespaces with an empty /etc/services, so that "http" is unknown.
TEST_F(UtilsTest, ReportsAnUnresolvedAddressOnce) {
    const auto checking = info(source, "Network interface is ready. Checking server address...");
    const auto unknown = error(source, "Could not get address information for [127.0.0.1][http]");
    std::thread([&] {
        ASSERT_EQ(unshare(CLONE_NEWNET | CLONE_NEWNS), 0) << "run me in lab/sandbox";
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("/dev/null", "/etc/services", nullptr, MS_BIND, nullptr), 0);
        EXPECT_FALSE(zav::isServerReachable());  // no interface: clears errors reported earlier
        os::execute("ip link add eth0 type veth peer name wire && ip link set wire up && ip link set eth0 up",
                    std::chrono::seconds(20));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!zav::isNetworkInterfaceUp() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        phone_.log.forget();
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_FALSE(zav::isServerReachable());
        EXPECT_EQ(phone_.log.lines(), (Lines{checking, unknown, checking}));
    }).join();
}

TEST_F(UtilsTest, UrlWithoutAFileNameGetsTheDefault) {
    EXPECT_EQ(zav::makeUrlInfo("http://server/path/").text(), "http://server/path/provisioning.xml");
    EXPECT_EQ(zav::makeUrlInfo("https://server:444").text(), "https://server:444/provisioning.xml");
    EXPECT_EQ(zav::makeUrlInfo("server").text(), "http://server/provisioning.xml");
    EXPECT_EQ(zav::makeUrlInfo("http://server/path/own.xml").text(), "http://server/path/own.xml");
    EXPECT_THROW(zav::makeUrlInfo(""), zav::UrlException);
}

TEST_F(UtilsTest, JobPathIsRelativeToTheServerPath) {
    EXPECT_EQ(zav::makeJobUrlInfo("/nvm/job.xml", "https://server:444/phones/initial.xml").text(),
              "https://server:444/phones/nvm/job.xml");
    EXPECT_EQ(zav::makeJobUrlInfo("/job.xml", "http://server").text(), "http://server/job.xml");
    EXPECT_EQ(zav::makeJobUrlInfo("http://other/job.xml", "http://server/").text(), "http://other/job.xml");
    EXPECT_EQ(zav::makeJobUrlInfo("other/job.xml", "http://server/").text(), "http://other/job.xml");
}

TEST_F(UtilsTest, EmptyJobPathThrows) {
    try {
        zav::makeJobUrlInfo("", "http://server/");
        FAIL() << "no exception";
    } catch (const zav::UrlException& e) {
        EXPECT_STREQ(e.what(), "Url is incorrect, please verify");
    }
}

TEST_F(UtilsTest, PrefixAndServiceOfAUrl) {
    EXPECT_EQ(zav::serverPrefix(zav::UrlInfo("https://server:444/a/b/file.xml")), "https://server:444/a/b/");
    EXPECT_EQ(zav::serverPrefix(zav::UrlInfo("http://server/file.xml")), "http://server/");
    EXPECT_EQ(zav::serviceOf(zav::UrlInfo("https://server:444/")), "444");
    EXPECT_EQ(zav::serviceOf(zav::UrlInfo("https://server/")), "https");
    EXPECT_EQ(zav::serviceOf(zav::UrlInfo("127.0.0.1")), "http");
}

TEST_F(UtilsTest, PathsBelowTheProvisioningFolder) {
    EXPECT_EQ(zav::provisioningDirectory, "/var/volatile/provisioning/");
    EXPECT_EQ(zav::provisioningPath("nvm", "job.xml"), "/var/volatile/provisioning/nvm/job.xml");
}

TEST_F(UtilsTest, CleanFirmwareUpdateEmptiesTheFolderAndRunsTheScript) {
    std::filesystem::create_directories("/config/swupdate/deep/deeper");
    tests::writeFile("/config/swupdate/deep/image", "x");
    tests::writeFile("/config/bin/clean-up-utils.sh", "#!/bin/sh\necho \"$@\" >/tmp/clean-up\n");
    std::filesystem::permissions("/config/bin/clean-up-utils.sh", std::filesystem::perms::owner_all);
    zav::cleanFirmwareUpdate();
    EXPECT_TRUE(std::filesystem::is_empty("/config/swupdate"));
    EXPECT_EQ(tests::contentOf("/tmp/clean-up"), "firmware-update\n");
    std::filesystem::remove("/config/bin/clean-up-utils.sh");
    EXPECT_THROW(zav::cleanFirmwareUpdate(), os::ExecuteException);
}

}  // namespace
