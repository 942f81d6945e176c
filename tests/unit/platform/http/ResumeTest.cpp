#include "DownloadFixture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;
using fakes::HttpHeaders;
using fakes::HttpRequest;

const std::string staging = "/config/swupdate/";

class Resume : public Fixture {
 protected:
    Resume() {
        for (std::size_t at = 0; at < content.size(); ++at) content[at] = static_cast<char>(at * 7 + at / 253);
        std::filesystem::create_directories(staging);
    }
    ~Resume() override {
        std::filesystem::remove(image);
        curl->setProgressCallback({});
    }

    // Serves `content`, ranges included, and breaks off after `bytes` of each of the first `breaks` answers.
    void serveBreaking(unsigned breaks, std::size_t bytes, const HttpHeaders& validators) {
        server.handle("/image", [this, breaks, bytes, validators,
                                 count = std::make_shared<unsigned>(0)](const HttpRequest& request) mutable {
            HttpAnswer answer = HttpAnswer::ok(content, validators);
            const std::string range = request.header("Range");
            const std::string known = request.header("If-Range");
            bool current = false;
            for (const auto& validator : validators) current = current || validator.second == known;
            if (!range.empty() && current) answer = rest(std::stoul(range.substr(6)), validators);
            return (*count)++ < breaks ? answer.cutOffAfter(bytes) : answer;
        });
    }

    HttpAnswer rest(std::size_t first, const HttpHeaders& validators) const {
        HttpAnswer answer = HttpAnswer::ok(content.substr(first), validators);
        answer.status = 206;
        answer.headers.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                         std::to_string(content.size() - 1) + "/" +
                                                         std::to_string(content.size()));
        return answer;
    }

    int fetchImage() { return fetch(server.url("/image"), image); }

    std::string content = std::string(400000, '\0');
    const std::string image = staging + "image.bin";
};

TEST_F(Resume, GoesOnWhereAFirmwareTransferBroke) {
    serveBreaking(3, 100000, {{"ETag", "\"v1\""}});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(contentOf(image), content);
    const auto asked = server.requests();
    ASSERT_EQ(asked.size(), 4U);
    EXPECT_EQ(asked[0].header("Range"), "");
    EXPECT_EQ(asked[1].header("Range"), "bytes=100000-");
    EXPECT_EQ(asked[1].header("If-Range"), "\"v1\"");
    EXPECT_EQ(asked[3].header("Range"), "bytes=300000-");
}

TEST_F(Resume, CountsTheBytesOfTheWholeFile) {
    serveBreaking(1, 250000, {{"ETag", "\"v1\""}});
    std::vector<long> seen;
    long total = 0;
    curl->setProgressCallback([&](long all, long now, long, long) {
        seen.push_back(now);
        if (all != 0) total = all;
    });
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(seen.back(), 400000);
    EXPECT_EQ(total, 400000);
}

TEST_F(Resume, KnowsAFileByItsDate) {
    const std::string date = "Wed, 18 Nov 2026 10:00:00 GMT";
    serveBreaking(1, 100000, {{"ETag", "W/\"weak\""}, {"Last-Modified", date}});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(server.requests().at(1).header("If-Range"), date);
    EXPECT_EQ(contentOf(image), content);
}

TEST_F(Resume, TakesTheWholeWhenTheFileChanged) {
    server.on("/image", {HttpAnswer::ok(std::string(200000, 'o'), {{"ETag", "\"old\""}}).cutOffAfter(150000),
                         HttpAnswer::ok("new, and short", {{"ETag", "\"new\""}})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(contentOf(image), "new, and short");
}

TEST_F(Resume, TakesAnEmptyFileWhenTheFileChanged) {
    server.on("/image", {HttpAnswer::ok(std::string(200000, 'o'), {{"ETag", "\"old\""}}).cutOffAfter(150000),
                         HttpAnswer::ok("", {{"ETag", "\"new\""}})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(contentOf(image), "");
}

TEST_F(Resume, NeedsAFileThatCanBeKnownAgain) {
    serveBreaking(1, 100000, {});
    EXPECT_EQ(fetchImage(), partialFile);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(image));
}

TEST_F(Resume, RefusesARestThatBeginsElsewhere) {
    // As many bytes as are missing, so that nothing but their place is wrong.
    HttpAnswer wrong = HttpAnswer::ok(content.substr(50000, 300000), {{"Content-Range", "bytes 50000-349999/400000"}});
    wrong.status = 206;
    server.on("/image", {HttpAnswer::ok(content, {{"ETag", "\"v1\""}}).cutOffAfter(100000), wrong});
    EXPECT_EQ(fetchImage(), rangeError);
    EXPECT_FALSE(std::filesystem::exists(image));
}

TEST_F(Resume, AsksOnWhenTheRestWasNotAll) {
    const HttpHeaders validators{{"ETag", "\"v1\""}};
    HttpAnswer part = rest(100000, validators);
    part.body.resize(100000);
    server.on("/image", {HttpAnswer::ok(content, validators).cutOffAfter(100000), part, rest(200000, validators)});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(contentOf(image), content);
}

TEST_F(Resume, ReportsWhatTheServerSaysInTheEnd) {
    server.on("/image", {HttpAnswer::ok(content, {{"ETag", "\"v1\""}}).cutOffAfter(100000), HttpAnswer::error(404)});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
    EXPECT_FALSE(std::filesystem::exists(image));
    EXPECT_TRUE(namesIn(staging).empty());
}

TEST_F(Resume, IsForFirmwareOnly) {
    serveBreaking(1, 100000, {{"ETag", "\"v1\""}});
    EXPECT_EQ(fetch("/image"), partialFile);
    EXPECT_EQ(server.requests().size(), 1U);
}

}  // namespace
