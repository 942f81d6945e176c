// What systemd receives on its notification socket.
#include "SystemdNotifier.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>

#include "Sanitized.h"
#include "TemporaryFolder.h"
#include "fakes/FewDescriptors.h"
#include "fakes/LogCapture.h"

namespace {

using propertyservice::SystemdNotifier;

/// Receives what is sent to a path, or to an abstract name if the address begins with "@".
class Receiver {
 public:
    explicit Receiver(const std::string& address) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        address.copy(name.sun_path, sizeof(name.sun_path) - 1);
        if (address[0] == '@') name.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
        bound_ = ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&name), length) == 0;
    }

    bool isBound() const { return bound_; }

    /// The next message, or "" if there is none. A message has arrived when its sender continues.
    std::string next() const {
        std::string message(100, '\0');
        const ssize_t count = ::recv(socket_.get(), message.data(), message.size(), MSG_DONTWAIT);
        message.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return message;
    }

 private:
    const common::Descriptor socket_;
    bool bound_ = false;
};

class SystemdNotifierTest : public testing::Test {
 protected:
    ~SystemdNotifierTest() override {
        for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::unsetenv(name);
    }
    static void set(const char* name, const std::string& value) { ::setenv(name, value.c_str(), 1); }
    static void expectOneWarning(const fakes::LogCapture& log, const std::string& text) {
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1U) << log.text();
        EXPECT_EQ(lines[0].level, "warning");
        EXPECT_EQ(lines[0].text, text);
    }

    const TemporaryFolder folder;
    const std::string path = folder / "notify";
    const std::string twoMinutes = "120000000";
};

TEST_F(SystemdNotifierTest, SendsToAPath) {
    const Receiver systemd(path);
    ASSERT_TRUE(systemd.isBound());
    set("NOTIFY_SOCKET", path);
    SystemdNotifier notifier;
    notifier.ready();
    notifier.stopping();
    EXPECT_EQ(systemd.next(), "READY=1");
    EXPECT_EQ(systemd.next(), "STOPPING=1");
}

TEST_F(SystemdNotifierTest, SendsToAnAbstractName) {
    const std::string name = "@zav-notifier-test-" + std::to_string(::getpid());
    const Receiver systemd(name);
    ASSERT_TRUE(systemd.isBound());
    set("NOTIFY_SOCKET", name);
    SystemdNotifier().ready();
    EXPECT_EQ(systemd.next(), "READY=1");
}

TEST_F(SystemdNotifierTest, ReadyThatCannotBeSentIsSentLater) {
    const Receiver systemd(path);
    set("NOTIFY_SOCKET", path);
    SystemdNotifier notifier;
    const fakes::LogCapture log;
    while (log.lines().empty()) notifier.stopping();  // until the queue is full
    notifier.ready();
    notifier.alive();
    while (systemd.next() == "STOPPING=1") {
    }
    EXPECT_EQ(systemd.next(), "");
    notifier.alive();
    EXPECT_EQ(systemd.next(), "READY=1");
    notifier.alive();
    EXPECT_EQ(systemd.next(), "");
    expectOneWarning(log, "Cannot notify systemd: Resource temporarily unavailable");
}

TEST_F(SystemdNotifierTest, SendsNothingWithoutTheVariable) {
    const fakes::LogCapture log;
    const Receiver systemd(path);
    set("WATCHDOG_USEC", twoMinutes);
    for (const char* empty : {"unset", ""}) {
        if (*empty == '\0') set("NOTIFY_SOCKET", empty);
        SystemdNotifier notifier;
        notifier.ready();
        notifier.alive();
        notifier.stopping();
        EXPECT_EQ(systemd.next(), "");
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(SystemdNotifierTest, AliveIsSentTenTimesInTheWatchdogsTimeAtMost) {
    const Receiver systemd(path);
    set("NOTIFY_SOCKET", path);
    set("WATCHDOG_USEC", "3600000000");
    set("WATCHDOG_PID", std::to_string(::getpid()));
    SystemdNotifier notifier;
    for (int round = 0; round < 1000; ++round) notifier.alive();
    EXPECT_EQ(systemd.next(), "WATCHDOG=1");
    EXPECT_EQ(systemd.next(), "");
}

TEST_F(SystemdNotifierTest, AliveIsSentAgainAndAgain) {
    const Receiver systemd(path);
    set("NOTIFY_SOCKET", path);
    set("WATCHDOG_USEC", "1");
    SystemdNotifier notifier;
    int received = 0;
    for (int round = 0; round < 100000 && received < 3; ++round) {
        notifier.alive();
        received += systemd.next() == "WATCHDOG=1" ? 1 : 0;
    }
    EXPECT_EQ(received, 3);
}

TEST_F(SystemdNotifierTest, AliveIsNotSentWithoutAWatchdog) {
    const Receiver systemd(path);
    set("NOTIFY_SOCKET", path);
    const auto sent = [&systemd] {
        SystemdNotifier().alive();
        return systemd.next();
    };
    EXPECT_EQ(sent(), "");
    for (const char* period : {"", "0", "-1", "soon"}) {
        set("WATCHDOG_USEC", period);
        EXPECT_EQ(sent(), "") << period;
    }
    set("WATCHDOG_USEC", twoMinutes);
    set("WATCHDOG_PID", "1");
    EXPECT_EQ(sent(), "") << "the watchdog of another process";
    set("WATCHDOG_PID", "");
    EXPECT_EQ(sent(), "WATCHDOG=1");
}

TEST_F(SystemdNotifierTest, FailureIsLoggedOnceAndALaterReceiverHears) {
    const fakes::LogCapture log;
    set("NOTIFY_SOCKET", path);
    SystemdNotifier notifier;
    notifier.ready();
    notifier.ready();
    expectOneWarning(log, "Cannot notify systemd: No such file or directory");
    const Receiver systemd(path);
    notifier.stopping();
    EXPECT_EQ(systemd.next(), "STOPPING=1");
}

TEST_F(SystemdNotifierTest, InvalidAddressIsLoggedOnce) {
    for (const std::string& address : {std::string("vsock:2:1"), "/" + std::string(200, 'x')}) {
        const fakes::LogCapture log;
        set("NOTIFY_SOCKET", address);
        SystemdNotifier notifier;
        notifier.ready();
        expectOneWarning(log, "Cannot notify systemd: NOTIFY_SOCKET is neither a path nor an abstract name");
    }
}

TEST_F(SystemdNotifierTest, ShortWatchdogIsAWarning) {
    const fakes::LogCapture log;
    set("NOTIFY_SOCKET", path);
    set("WATCHDOG_USEC", "60000000");
    const SystemdNotifier longEnough;
    EXPECT_EQ(log.text(), "");
    set("WATCHDOG_USEC", "59999999");
    const SystemdNotifier tooShort;
    expectOneWarning(log, "WatchdogSec= is less than 60 s: an idle service may be taken for one that hangs");
}

TEST_F(SystemdNotifierTest, MissingDescriptorIsLoggedOnce) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs what is missing here";
    const fakes::LogCapture log;
    set("NOTIFY_SOCKET", path);
    std::optional<fakes::FewDescriptors> none(0);
    SystemdNotifier notifier;
    none.reset();
    notifier.ready();
    notifier.alive();
    expectOneWarning(log, "Cannot notify systemd: Too many open files");
}

}  // namespace
