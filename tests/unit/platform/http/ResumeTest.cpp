#include <signal.h>
#include <sys/resource.h>

#include <ostream>

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

    // Serves `content` with ranges, and cuts each of the first `cuts` responses after `bytes`.
    void serveCutting(unsigned cuts, std::size_t bytes, const HttpHeaders& validators) {
        server.handle("/image", [this, cuts, bytes, validators,
                                 count = std::make_shared<unsigned>(0)](const HttpRequest& request) mutable {
            HttpAnswer answer = HttpAnswer::ok(content, validators);
            const std::string range = request.header("Range");
            const std::string known = request.header("If-Range");
            bool current = false;
            for (const auto& validator : validators) current = current || validator.second == known;
            if (!range.empty() && current) answer = rest(std::stoul(range.substr(6)), validators);
            return (*count)++ < cuts ? answer.cutOffAfter(bytes) : answer;
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

TEST_F(Resume, ContinuesAnInterruptedFirmwareTransfer) {
    serveCutting(3, 100000, {{"ETag", "\"v1\""}});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(holds(image, content));
    const auto asked = server.requests();
    ASSERT_EQ(asked.size(), 4U);
    EXPECT_EQ(asked[0].header("Range"), "");
    EXPECT_EQ(asked[1].header("Range"), "bytes=100000-");
    EXPECT_EQ(asked[1].header("If-Range"), "\"v1\"");
    EXPECT_EQ(asked[3].header("Range"), "bytes=300000-");
}

TEST_F(Resume, ReportsProgressOfTheWholeFile) {
    serveCutting(1, 250000, {{"ETag", "\"v1\""}});
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

TEST_F(Resume, UsesLastModified) {
    const std::string date = "Wed, 18 Nov 2026 10:00:00 GMT";
    serveCutting(1, 100000, {{"Last-Modified", date}, {"Date", "Wed, 18 Nov 2026 10:00:01 GMT"}});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(server.requests().at(1).header("If-Range"), date);
    EXPECT_TRUE(holds(image, content));
}

TEST_F(Resume, StartsAgainIfTheFileChanged) {
    server.on("/image", {HttpAnswer::ok(std::string(200000, 'o'), {{"ETag", "\"old\""}}).cutOffAfter(150000),
                         HttpAnswer::ok("new, and short", {{"ETag", "\"new\""}})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(contentOf(image), "new, and short");
}

TEST_F(Resume, AcceptsAnEmptyFileIfTheFileChanged) {
    server.on("/image", {HttpAnswer::ok(std::string(200000, 'o'), {{"ETag", "\"old\""}}).cutOffAfter(150000),
                         HttpAnswer::ok("", {{"ETag", "\"new\""}})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(contentOf(image), "");
}

TEST_F(Resume, GoesOnWithAChangedFileThatBreaksOffToo) {
    const HttpHeaders changed{{"ETag", "\"new\""}};
    server.on("/image", {HttpAnswer::ok(std::string(200000, 'o'), {{"ETag", "\"old\""}}).cutOffAfter(150000),
                         HttpAnswer::ok(content, changed).cutOffAfter(80000), rest(80000, changed)});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
    const auto asked = server.requests();
    ASSERT_EQ(asked.size(), 3U);
    EXPECT_EQ(asked[1].header("Range"), "bytes=150000-");
    EXPECT_EQ(asked[2].header("Range"), "bytes=80000-");
    EXPECT_EQ(asked[2].header("If-Range"), "\"new\"");
}

// The first break is tried again at once, the next one that brought little a second later.
TEST_F(Resume, PausesBeforeItTriesAgain) {
    const HttpHeaders known{{"ETag", "\"v1\""}};
    server.on("/image", {HttpAnswer::ok(content, known).cutOffAfter(1000), rest(1000, known).cutOffAfter(1000),
                         rest(2000, known)});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_TRUE(holds(image, content));
}

// Responses without a strong validator.
class WithoutStrongValidator : public Resume, public testing::WithParamInterface<HttpHeaders> {};

TEST_P(WithoutStrongValidator, StartsAgain) {
    serveCutting(2, 100000, GetParam());
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(holds(image, content));
    ASSERT_EQ(server.requests().size(), 3U);
    for (const HttpRequest& request : server.requests()) EXPECT_EQ(request.header("Range"), "");
}

const std::string tenOClock = "Wed, 18 Nov 2026 10:00:00 GMT";
const std::string later = "Wed, 18 Nov 2026 10:00:01 GMT";

INSTANTIATE_TEST_SUITE_P(
    Resume, WithoutStrongValidator,
    testing::Values(HttpHeaders{}, HttpHeaders{{"ETag", "W/\"weak\""}}, HttpHeaders{{"ETag", "bare"}},
                    HttpHeaders{{"ETag", "xy\""}}, HttpHeaders{{"ETag", "\"a\", \"b\""}},
                    HttpHeaders{{"ETag", "\"a\""}, {"ETag", "\"b\""}}, HttpHeaders{{"Last-Modified", tenOClock}},
                    HttpHeaders{{"Last-Modified", tenOClock}, {"Date", tenOClock}},
                    HttpHeaders{{"Last-Modified", tenOClock}, {"Date", "Wed, 18 Nov 2026 09:59:59 GMT"}},
                    HttpHeaders{{"Last-Modified", "long ago"}, {"Date", tenOClock}},
                    HttpHeaders{{"ETag", "W/\"weak\""}, {"Last-Modified", tenOClock}, {"Date", later}},
                    HttpHeaders{{"Last-Modified", tenOClock}, {"Last-Modified", tenOClock}, {"Date", later}},
                    HttpHeaders{{"Last-Modified", tenOClock}, {"Date", later}, {"Date", later}}));

TEST_F(Resume, StopPreventsTheNextAttempt) {
    const auto stop = std::make_shared<common::StopSignal>();
    curl->stopWith(stop);
    server.handle("/image", [this, stop](const HttpRequest&) {
        if (server.requestsFor("/image").size() == 3) stop->stop();
        return HttpAnswer::ok(content).cutOffAfter(100000);
    });
    EXPECT_EQ(fetchImage(), partialFile);
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_TRUE(namesIn(staging).empty());
}

// The first response is 400,000 bytes long, has the ETag "e1" and is cut after 150,000. The second is that of the row,
// the third another file as a whole.
struct SecondResponse {
    const char* name;
    int status;
    HttpHeaders headers;
    std::size_t length;  // of the body, which belongs to another image
    bool chunked = false;
};

void PrintTo(const SecondResponse& row, std::ostream* stream) { *stream << row.name; }

const std::pair<std::string, std::string> e1{"ETag", "\"e1\""};
const std::pair<std::string, std::string> e2{"ETag", "\"e2\""};

std::pair<std::string, std::string> range(const std::string& text) { return {"Content-Range", "bytes " + text}; }

const SecondResponse mismatches[] = {
    {"AnotherETag", 206, {e2, range("150000-399999/400000")}, 250000},
    {"WeakETag", 206, {{"ETag", "W/\"e1\""}, range("150000-399999/400000")}, 250000},
    {"NoValidator", 206, {range("150000-399999/400000")}, 250000},
    {"ContradictingETags", 206, {e1, e2, range("150000-399999/400000")}, 250000},
    {"AnotherTotal", 206, {e1, range("150000-150999/151000")}, 1000},
    {"UnknownTotal", 206, {e1, range("150000-399999/*")}, 250000},
    {"LaterStart", 206, {e1, range("150001-399999/400000")}, 249999},
    {"EarlierStart", 206, {e1, range("149999-399999/400000")}, 250001},
    {"FromTheStart", 206, {e1, range("0-399999/400000")}, 400000},
    {"EndsBehindTheTotal", 206, {e1, range("150000-400000/400000")}, 250001},
    {"EndsBeforeItStarts", 206, {e1, range("150000-149999/400000")}, 0},
    {"NoRange", 206, {e1}, 250000},
    {"TwoRanges", 206, {e1, range("150000-399999/400000"), range("0-1/2")}, 250000},
    {"OtherUnit", 206, {e1, {"Content-Range", "lines 150000-399999/400000"}}, 250000},
    {"HugeNumbers", 206, {e1, range("150000-18446744073709551616/18446744073709551617")}, 250000},
    {"LengthTooSmallForTheRange", 206, {e1, range("150000-399999/400000")}, 1000},
    {"LengthTooGreatForTheRange", 206, {e1, range("150000-150999/400000")}, 250000},
    {"ChunksTooSmallForTheRange", 206, {e1, range("150000-399999/400000")}, 1000, true},
    {"ChunksTooGreatForTheRange", 206, {e1, range("150000-150999/400000")}, 250000, true},
    {"EmptyRest", 206, {e1, range("150000-399999/400000")}, 0},
    {"NotSatisfiable", 416, {{"Content-Range", "bytes */151000"}}, 0},
    {"NotSatisfiableWithAPage", 416, {}, 3000},
};

class Mismatch : public Resume, public testing::WithParamInterface<SecondResponse> {};

TEST_P(Mismatch, StartsAgain) {
    HttpAnswer second = HttpAnswer::ok(std::string(GetParam().length, 'x'), GetParam().headers);
    second.status = GetParam().status;
    second.chunked = GetParam().chunked;
    server.on("/image", {HttpAnswer::ok(content, {e1}).cutOffAfter(150000), second,
                         HttpAnswer::ok(std::string(300000, 'n'), {e2})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(holds(image, std::string(300000, 'n')));
    const auto asked = server.requests();
    ASSERT_EQ(asked.size(), 3U);
    EXPECT_EQ(asked[1].header("Range"), "bytes=150000-");
    EXPECT_EQ(asked[2].header("Range"), "");
    EXPECT_EQ(asked[2].header("If-Range"), "");
}

INSTANTIATE_TEST_SUITE_P(Resume, Mismatch, testing::ValuesIn(mismatches),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Resume, DiscardsAnInterruptedMismatch) {
    HttpAnswer part = HttpAnswer::ok(std::string(1000, 'x'), {e1, range("150000-399999/400000")});
    part.status = 206;
    server.on("/image",
              {HttpAnswer::ok(content, {e1}).cutOffAfter(150000), part.cutOffAfter(500), HttpAnswer::ok(content)});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
    EXPECT_EQ(server.requests().at(2).header("Range"), "");
}

TEST_F(Resume, FailsIfNoResponseContinuesTheFile) {
    // Each request for a range gets a part of another image, each other request is cut. The stop ends the retries.
    const auto stop = std::make_shared<common::StopSignal>();
    curl->stopWith(stop);
    server.handle("/image", [this, stop](const HttpRequest& request) {
        if (server.requestsFor("/image").size() == 4) stop->stop();
        if (request.header("Range").empty()) return HttpAnswer::ok(content, {e1}).cutOffAfter(150000);
        HttpAnswer part = HttpAnswer::ok(std::string(250000, 'x'), {e2, range("150000-399999/400000")});
        part.status = 206;
        return part;
    });
    EXPECT_EQ(fetchImage(), rangeError);
    EXPECT_EQ(server.requests().size(), 4U);
    EXPECT_TRUE(namesIn(staging).empty());
}

TEST_F(Resume, StartsAgainIfTheUrlChanged) {
    // An ETag is valid for its URL only.
    server.on("/image", {HttpAnswer::redirect("/here/image"), HttpAnswer::redirect("/there/image")});
    server.on("/here/image", HttpAnswer::ok(content, {e1}).cutOffAfter(150000));
    server.on("/there/image", HttpAnswer::ok(std::string(400000, 't'), {e1}));
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, std::string(400000, 't')));
    EXPECT_EQ(server.requestsFor("/there/image").at(0).header("Range"), "");
}

TEST_F(Resume, WorksAfterARedirect) {
    server.on("/image", HttpAnswer::redirect("/here/image"));
    server.on("/here/image", {HttpAnswer::ok(content, {e1}).cutOffAfter(150000), rest(150000, {e1})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
    EXPECT_EQ(server.requestsFor("/here/image").at(1).header("Range"), "bytes=150000-");
}

TEST_F(Resume, ContinuesAFileOfUnknownTotal) {
    HttpAnswer first = HttpAnswer::ok(content, {e1});
    first.chunked = true;
    server.on("/image", {first.cutOffAfter(150000), rest(149993, {e1})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
}

TEST_F(Resume, SurvivesAnInterruptionInsideTheHeaders) {
    server.on("/image", {HttpAnswer::ok(content, {e1}).cutOffAfter(150000),
                         HttpAnswer::bytes("HTTP/1.1 206 Partial Content\r\nETag: \"e2\"\r\n"), rest(150000, {e1})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(Resume, RequestsTheRestOfAShorterRange) {
    HttpAnswer part = HttpAnswer::ok(content.substr(100000, 100000), {e1, range("100000-199999/400000")});
    part.status = 206;
    server.on("/image", {HttpAnswer::ok(content, {e1}).cutOffAfter(100000), part, rest(200000, {e1})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_TRUE(holds(image, content));
}

TEST_F(Resume, AttemptWithoutAResponseKeepsTheFile) {
    // The second connection is accepted and reset.
    server.on("/image", {HttpAnswer::ok(content, {e1}).cutOffAfter(150000), HttpAnswer::bytes("", fakes::Ending::reset),
                         rest(150000, {e1})});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(holds(image, content));
}

class NotAnImage : public Resume, public testing::WithParamInterface<int> {};

TEST_P(NotAnImage, LeavesNoFileAndIsNotRetried) {
    server.on("/image", HttpAnswer::error(GetParam(), content));
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), GetParam());
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_TRUE(namesIn(staging).empty());
}

INSTANTIATE_TEST_SUITE_P(Resume, NotAnImage, testing::Values(201, 204, 206, 404, 416, 500));

TEST_F(Resume, ReportsTheLastStatus) {
    server.on("/image", {HttpAnswer::ok(content, {{"ETag", "\"v1\""}}).cutOffAfter(100000), HttpAnswer::error(404)});
    EXPECT_EQ(fetchImage(), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
    EXPECT_FALSE(std::filesystem::exists(image));
    EXPECT_TRUE(namesIn(staging).empty());
}

TEST_F(Resume, ReportsStatus200IfTheFileCannotBeWritten) {
    server.handle("/image", [this](const HttpRequest& request) {
        const HttpHeaders validators{{"ETag", "\"v1\""}};
        if (request.header("Range").empty()) return HttpAnswer::ok(content, validators).cutOffAfter(150000);
        const rlimit small{200000, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &small);
        return rest(150000, validators);
    });
    const auto before = ::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(fetchImage(), writeError);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_FALSE(std::filesystem::exists(image));
    EXPECT_EQ(server.requests().size(), 2U);
    const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &none);
    ::signal(SIGXFSZ, before);
}

TEST_F(Resume, IsForFirmwareOnly) {
    serveCutting(1, 100000, {{"ETag", "\"v1\""}});
    EXPECT_EQ(fetch("/image"), partialFile);
    EXPECT_EQ(server.requests().size(), 1U);
}

}  // namespace
