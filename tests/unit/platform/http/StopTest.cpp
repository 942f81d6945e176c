// Downloads and the stop signal.
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <thread>

#include "DownloadFixture.h"
#include "common/Descriptor.h"
#include "fakes/LogCapture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;
using std::chrono::seconds;

// A steady clock that the test can advance.
class Clock {
 public:
    zav::CurlSettings settings() {
        zav::CurlSettings settings;
        settings.steadyNow = [this] { return std::chrono::steady_clock::now() + seconds(ahead_); };
        return settings;
    }
    void advance(seconds time) { ahead_ += time.count(); }

 private:
    std::atomic<seconds::rep> ahead_{0};
};

struct WithClock {
    Clock clock;
};

class Stop : private WithClock, public Fixture {
 protected:
    Stop() : Fixture(clock.settings()) { curl->stopWith(signal); }
    ~Stop() override { std::filesystem::remove(image); }

    void stopAndPassTheGracePeriod() {
        signal->stop();
        clock.advance(common::StopSignal::grace);
    }

    std::future<int> fetchMeanwhile(const std::string& url) {
        return std::async(std::launch::async, [this, url] { return fetch(url, target); });
    }

    const std::string image = "/config/swupdate/stop.bin";
    const std::shared_ptr<common::StopSignal> signal = std::make_shared<common::StopSignal>();
    const std::shared_ptr<fakes::Gate> gate = std::make_shared<fakes::Gate>();
};

TEST_F(Stop, AllowsTheGracePeriod) {
    server.on("/a", HttpAnswer::ok("content").stallingAfter(3, gate));
    auto download = fetchMeanwhile(server.url("/a"));
    ASSERT_TRUE(gate->waitUntilReached());
    signal->stop();
    gate->open();
    EXPECT_EQ(download.get(), ok);
    EXPECT_EQ(contentOf(target), "content");
}

TEST_F(Stop, EndsAStalledTransferAfterTheGracePeriod) {
    server.on("/a", HttpAnswer::ok("content").stallingAfter(3, gate));
    auto download = fetchMeanwhile(server.url("/a"));
    ASSERT_TRUE(gate->waitUntilReached());
    stopAndPassTheGracePeriod();
    EXPECT_EQ(download.get(), stopped);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Stop, EndsAFlowingTransferAfterTheGracePeriod) {
    server.on("/a", HttpAnswer::bytes("HTTP/1.1 200 OK\r\n\r\n").followedBy("x"));
    curl->setProgressCallback([this](long, long now, long, long) {
        if (now > 0) stopAndPassTheGracePeriod();
    });
    EXPECT_EQ(fetch(server.url("/a"), image), stopped);
    EXPECT_FALSE(std::filesystem::exists(image));
}

TEST_F(Stop, EndsATransferThatWaitsForAResponse) {
    fakes::HttpServer silent("127.0.0.1", 0, fakes::Flaw::silent);
    auto download = fetchMeanwhile(silent.url("/a"));
    ASSERT_TRUE(silent.waitForConnections());
    stopAndPassTheGracePeriod();
    EXPECT_EQ(download.get(), stopped);
}

TEST_F(Stop, EndsATransferInTheTlsHandshake) {
    const fakes::TestAuthority authority;
    fakes::HttpServer silent(authority.issue("127.0.0.1"), fakes::Flaw::silent);
    auto download = fetchMeanwhile(silent.url("/a"));
    ASSERT_TRUE(silent.waitForConnections());
    stopAndPassTheGracePeriod();
    EXPECT_EQ(download.get(), stopped);
}

// A network whose name server never answers, for the thread that creates it and the threads started by that one.
class SilentNameServer {
 public:
    SilentNameServer() {
        ifreq loopback{};
        std::string("lo").copy(loopback.ifr_name, sizeof loopback.ifr_name);
        loopback.ifr_flags = IFF_UP;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(53);
        writeFile("/tmp/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30\n");
        works_ = ::unshare(CLONE_NEWNET) == 0 && openNameServer() &&
                 ::ioctl(nameServer_.get(), SIOCSIFFLAGS, &loopback) == 0 &&
                 ::bind(nameServer_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                 ::mount("/tmp/resolv.conf", "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
    }
    ~SilentNameServer() { ::umount("/etc/resolv.conf"); }

    bool works() const { return works_; }
    /// Waits until the name server receives a query.
    void waitForQuery() const {
        char query = 0;
        ::recv(nameServer_.get(), &query, sizeof query, 0);
    }

 private:
    bool openNameServer() {
        nameServer_.reset(::socket(AF_INET, SOCK_DGRAM, 0));
        return nameServer_.get() >= 0;
    }

    common::Descriptor nameServer_;
    bool works_ = false;
};

TEST_F(Stop, EndsATransferThatWaitsForANameServer) {
    int result = ok;
    std::thread([&] {
        const SilentNameServer network;
        ASSERT_TRUE(network.works());
        auto download = fetchMeanwhile("http://somewhere.example/a");
        network.waitForQuery();
        stopAndPassTheGracePeriod();
        result = download.get();
    }).join();
    EXPECT_EQ(result, stopped);
}

TEST_F(Stop, PreventsTransfersAfterTheGracePeriod) {
    server.on("/a", HttpAnswer::ok("content"));
    stopAndPassTheGracePeriod();
    EXPECT_EQ(fetch("/a"), stopped);
    EXPECT_EQ(curl->getHttpCode(), 0);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Stop, EndsThePauseBeforeTheNextAttempt) {
    server.on("/image", HttpAnswer::ok("content").cutOffAfter(3));
    const fakes::LogCapture log;
    auto download = std::async(std::launch::async, [this] { return fetch(server.url("/image"), image); });
    // The pauses before the second, third and fourth attempt are 0, 1 and 2 s.
    ASSERT_TRUE(log.waitFor(
        fakes::info("platform/http/src/FileDownloader", "Download broke off after 3 bytes, starting again in 2 s")));
    signal->stop();
    EXPECT_EQ(download.get(), partialFile);
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_FALSE(std::filesystem::exists(image));
}

TEST_F(Stop, NullSignalNeverStops) {
    server.on("/a", HttpAnswer::ok("content"));
    curl->stopWith(nullptr);
    stopAndPassTheGracePeriod();
    EXPECT_EQ(fetch("/a"), ok);
}

}  // namespace
