#include "DownloadFixture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

class Redirect : public Fixture {
 protected:
    // /1 redirects to /2 and so on, the last one to the file.
    void chain(int steps) {
        for (int step = 1; step <= steps; ++step) {
            server.on(
                "/" + std::to_string(step),
                HttpAnswer::redirect(step == steps ? "/file" : "/" + std::to_string(step + 1), 300 + (step % 2) + 1));
        }
        server.on("/file", HttpAnswer::ok("at last"));
    }
};

TEST_F(Redirect, IsFollowedFiveTimes) {
    chain(5);
    EXPECT_EQ(fetch("/1"), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(contentOf(target), "at last");
}

TEST_F(Redirect, IsNotFollowedASixthTime) {
    chain(6);
    EXPECT_EQ(fetch("/1"), tooManyRedirects);
    EXPECT_TRUE(namesIn(folder).empty());
    EXPECT_EQ(server.requests().size(), 6U);
}

TEST_F(Redirect, LoopIsEnded) {
    server.on("/loop", HttpAnswer::redirect("/loop"));
    EXPECT_EQ(fetch("/loop"), tooManyRedirects);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Redirect, ToAnotherServerIsFollowed) {
    fakes::HttpServer other;
    other.on("/file", HttpAnswer::ok("from there"));
    server.on("/a", HttpAnswer::redirect(other.url("/file"), 307));
    EXPECT_EQ(fetch("/a"), ok);
    EXPECT_EQ(contentOf(target), "from there");
}

TEST_F(Redirect, WithoutALocationIsNotFollowed) {
    HttpAnswer answer = HttpAnswer::error(302);
    server.on("/a", answer);
    EXPECT_EQ(fetch("/a"), ok);
    EXPECT_EQ(curl->getHttpCode(), 302);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Redirect, WithAnEmptyLocationIsNotFollowed) {
    for (const char* location : {"", "  ", "\t"}) {
        server.on("/a", HttpAnswer::redirect(location));
        EXPECT_EQ(fetch("/a"), ok);
        EXPECT_EQ(curl->getHttpCode(), 302);
        EXPECT_TRUE(namesIn(folder).empty());
    }
}

TEST_F(Redirect, EndlessBodyIsAbandoned) {
    HttpAnswer answer = HttpAnswer::redirect("/file");
    answer.body = std::string(10000, 'r');
    answer.endless = true;
    server.on("/a", answer);
    server.on("/file", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/a"), ok);
    EXPECT_EQ(contentOf(target), "content");
}

TEST_F(Redirect, WithAnotherStatusIsNotFollowed) {
    for (const int status : {201, 300, 304, 305, 306, 404}) {
        server.on("/a", HttpAnswer::redirect("/file", status));
        EXPECT_EQ(fetch("/a"), ok);
        EXPECT_EQ(curl->getHttpCode(), status);
    }
    EXPECT_TRUE(server.requestsFor("/file").empty());
}

TEST_F(Redirect, MayBeRelative) {
    server.on("/dir/sub/a", HttpAnswer::redirect("../other/b?x=1"));
    server.on("/dir/other/b", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/dir/sub/a"), ok);
    EXPECT_EQ(server.requestsFor("/dir/other/b").at(0).target, "/dir/other/b?x=1");
}

TEST_F(Redirect, ToAClosedPortHasNoStatus) {
    std::string gone;
    {
        const fakes::HttpServer other;
        gone = other.url("/a");
    }
    server.on("/a", HttpAnswer::redirect(gone));
    EXPECT_EQ(fetch("/a"), couldNotConnect);
    EXPECT_EQ(curl->getHttpCode(), 0);
}

TEST_F(Redirect, ToAnInvalidUrlIsRefused) {
    for (const std::string location : {"http://", "http://host:0/", "http://[::1/a", "//:0/", "http://a b:x/"}) {
        server.on("/a", HttpAnswer::redirect(location));
        EXPECT_NE(fetch("/a"), ok) << location;
        EXPECT_TRUE(namesIn(folder).empty());
    }
}

class OtherScheme : public Fixture, public testing::WithParamInterface<std::string> {};

TEST_P(OtherScheme, IsRefused) {
    writeFile(folder + "/secret", "not for download");
    EXPECT_EQ(fetch(GetParam(), target), unsupportedProtocol);
    EXPECT_EQ(curl->getHttpCode(), 0);
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_P(OtherScheme, IsRefusedAfterARedirect) {
    server.on("/a", HttpAnswer::redirect(GetParam()));
    EXPECT_EQ(fetch("/a"), unsupportedProtocol);
    EXPECT_FALSE(std::filesystem::exists(target));
}

INSTANTIATE_TEST_SUITE_P(Redirect, OtherScheme,
                         testing::Values("file://localhost/etc/passwd", "ftp://127.0.0.1/a", "gopher://127.0.0.1:1/1a",
                                         "dict://127.0.0.1/d:a", "scp://127.0.0.1/a", "tftp://127.0.0.1/a",
                                         "ldap://127.0.0.1/a", "smb://127.0.0.1/a/b", "telnet://127.0.0.1/"));

TEST_F(Redirect, ToAFileIsRefused) {
    server.on("/a", HttpAnswer::redirect("file:///etc/passwd"));
    EXPECT_EQ(fetch("/a"), unsupportedProtocol);
    EXPECT_EQ(fetch("file:///etc/passwd", target), malformedUrl);  // has no host
    EXPECT_FALSE(std::filesystem::exists(target));
}

}  // namespace
