#include "http/Curl.h"

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "DownloadFixture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

class Progress : public Fixture {};

TEST_F(Progress, CountsTheBytesOfTheFile) {
    const auto gate = std::make_shared<fakes::Gate>();
    server.on("/a.xml", HttpAnswer::ok(std::string(1000, 'x')).stallingAfter(100, gate));
    std::vector<long> seen;
    long total = 0;
    curl->setProgressCallback([&](long all, long now, long, long) {
        if (seen.empty() || seen.back() != now) seen.push_back(now);
        total = all;
        if (now == 100) gate->open();
    });
    EXPECT_EQ(fetch("/a.xml"), ok);
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_NE(std::find(seen.begin(), seen.end(), 100), seen.end());
    EXPECT_EQ(seen.back(), 1000);
    EXPECT_EQ(total, 1000);
}

TEST_F(Progress, IsNotReportedAfterRemoval) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    int calls = 0;
    curl->setProgressCallback([&](long, long, long, long) { ++calls; });
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_GT(calls, 0);
    curl->setProgressCallback({});
    calls = 0;
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(calls, 0);
}

TEST_F(Progress, CallbackMayRemoveItself) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    int calls = 0;
    const auto held = std::make_shared<int>(7);
    curl->setProgressCallback([&calls, held, this](long, long, long, long) {
        curl->setProgressCallback({});
        calls += *held == 7 ? 1 : 100;  // the captures are still alive
    });
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(Progress, RemovalWaitsForARunningCallback) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    std::promise<void> entered;
    std::promise<void> release;
    bool first = true;
    std::atomic<bool> running{false};
    curl->setProgressCallback([&](long, long, long, long) {
        if (!first) return;
        first = false;
        running = true;
        entered.set_value();
        release.get_future().wait();
        running = false;
    });
    auto download = std::async(std::launch::async, [&] { return fetch("/a.xml"); });
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] {
        curl->setProgressCallback({});
        return running.load();
    });
    // Not ready on any machine, however slow; waiting only lets an incorrect implementation fail.
    EXPECT_NE(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::ready);
    release.set_value();
    EXPECT_FALSE(removal.get());
    EXPECT_EQ(download.get(), ok);
}

TEST_F(Progress, SurvivesACallbackThatThrows) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    curl->setProgressCallback([](long, long, long, long) { throw std::runtime_error("no"); });
    EXPECT_EQ(fetch("/a.xml"), ok);
    curl->setProgressCallback([](long, long, long, long) { throw 1; });
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(target), "content");
}

TEST(Curl, HoldsAReferenceToTheGlobalInitialisation) {
    fakes::HttpServer server;
    server.on("/a.xml", HttpAnswer::ok("content"));
    const auto properties = std::make_shared<fakes::FakeProperties>();
    zav::Security security(properties);
    const auto staying = std::make_shared<zav::Curl>();
    { const zav::Curl going; }
    zav::FileDownloader downloader(staying, security, properties);
    EXPECT_EQ(staying->getHttpCode(), 0);
    EXPECT_EQ(downloader.downloadFile(server.url("/a.xml"), "/var/volatile/provisioning/keeps.xml"), ok);
}

}  // namespace
