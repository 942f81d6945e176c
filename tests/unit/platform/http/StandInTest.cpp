#include <new>

#include "DownloadFixture.h"

namespace {

using namespace download;

constexpr int writeError = 23;
constexpr int readError = 26;
constexpr int outOfMemory = 27;
constexpr std::size_t mebibyte = 1024 * 1024;

// Nothing of the network is used: each URL is answered by `answer`.
class StandIn : public testing::Test {
 protected:
    StandIn() {
        zav::CurlSettings settings;
        settings.standIn = [this](const std::string& url) {
            if (fails) throw std::bad_alloc();
            urls.push_back(url);
            return answer;
        };
        settings.onEnd = [this](const std::string& url, int result, long status) {
            ends.push_back(url + " " + std::to_string(result) + " " + std::to_string(status));
        };
        curl = std::make_shared<zav::Curl>(settings);
        writeFile(body, "content");
    }
    ~StandIn() override { std::filesystem::remove_all(folder); }

    int fetch(const std::string& destination) {
        return zav::FileDownloader(curl, security, properties)
            .downloadFile("https://server.example/%MACD/file.xml", destination);
    }

    const std::string folder = "/var/volatile/provisioning/stand-in/";
    const std::string target = folder + "file.xml";
    const std::string body = folder + "body";
    zav::LocalAnswer answer{200, body};
    std::vector<std::string> urls;
    std::vector<std::string> ends;
    bool fails = false;
    std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>(
        fakes::FakeProperties::Values{{"NET.MAC.Address", "00:1A:2B:3C:4D:5E"}});
    zav::Security security{properties};
    std::shared_ptr<zav::Curl> curl;
};

TEST_F(StandIn, AnswersTheExpandedUrlWithAFile) {
    EXPECT_EQ(fetch(target), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(contentOf(target), "content");
    EXPECT_EQ(urls, std::vector<std::string>{"https://server.example/00-1A-2B-3C-4D-5E/file.xml"});
    EXPECT_EQ(ends, std::vector<std::string>{"https://server.example/00-1A-2B-3C-4D-5E/file.xml 0 200"});
}

TEST_F(StandIn, TheEndIsHeardWhateverEndsTheDownload) {
    const std::string url = "https://server.example/00-1A-2B-3C-4D-5E/file.xml ";
    EXPECT_EQ(fetch("/proc/none/file.xml"), writeError);
    EXPECT_EQ(ends, std::vector<std::string>{url + "23 0"});
    ends.clear();
    fails = true;
    EXPECT_EQ(fetch(target), outOfMemory);
    EXPECT_EQ(ends, std::vector<std::string>{url + "27 0"});
}

TEST_F(StandIn, ReportsProgress) {
    std::vector<long> progress;
    curl->setProgressCallback([&](long total, long now, long, long) {
        progress.push_back(total);
        progress.push_back(now);
    });
    EXPECT_EQ(fetch(target), ok);
    EXPECT_EQ(progress, (std::vector<long>{7, 7}));
}

TEST_F(StandIn, OtherStatusKeepsTheOldFile) {
    writeFile(target, "old");
    answer = {404, body};
    EXPECT_EQ(fetch(target), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
    EXPECT_EQ(contentOf(target), "old");
    EXPECT_EQ(namesIn(folder).size(), 2U);
}

TEST_F(StandIn, SizeLimitsApply) {
    writeFile(body, std::string(mebibyte + 1, 'c'));
    EXPECT_EQ(fetch(target), ok);
    const std::string certificate = "/custom/certs/_storage/stand-in.pem";
    EXPECT_EQ(fetch(certificate), tooLarge);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_FALSE(std::filesystem::exists(certificate));
}

TEST_F(StandIn, UnreadableFileIsAFailedDownload) {
    answer.file = folder + "missing";
    EXPECT_EQ(fetch(target), readError);
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(StandIn, SettingsMakeAnotherClientOfTheSameKind) {
    curl = std::make_shared<zav::Curl>(curl->settings());
    EXPECT_EQ(fetch(target), ok);
    EXPECT_EQ(urls.size(), 1U);
}

TEST_F(StandIn, WithoutSyncTheFileIsStoredAllTheSame) {
    zav::CurlSettings settings = curl->settings();
    settings.sync = false;
    curl = std::make_shared<zav::Curl>(settings);
    EXPECT_EQ(fetch(target), ok);
    EXPECT_EQ(contentOf(target), "content");
}

}  // namespace
