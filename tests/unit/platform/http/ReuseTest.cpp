// Data that a server sends after a response never becomes part of the next download.
#include <ostream>

#include "DownloadFixture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::Afterwards;
using fakes::Ending;
using fakes::Flaw;
using fakes::HttpAnswer;
using fakes::HttpServer;

enum class Transport { plain, tls12, tls13 };

void PrintTo(Transport transport, std::ostream* stream) { *stream << static_cast<int>(transport); }

const std::string body = "a body without a length";

class Reuse : public Fixture, public testing::WithParamInterface<Transport> {
 protected:
    Reuse() {
        trust(authority.certificate());
        peer.on("/good", HttpAnswer::ok("good"));
    }

    int get(const std::string& path) { return fetch(peer.url(path), target); }

    void expectNextDownloadWorks() {
        EXPECT_EQ(get("/good"), ok);
        EXPECT_EQ(curl->getHttpCode(), 200);
        EXPECT_EQ(contentOf(target), "good");
    }

    unsigned connectionOf(const std::string& path) const {
        const auto requests = peer.requestsFor(path);
        return requests.empty() ? 0 : requests.back().connection;
    }

    // Lets the server run the script on the idle connection.
    static void run(Afterwards& script) {
        script.begin->open();
        ASSERT_TRUE(script.delivered->waitUntilReached());
        script.delivered->open();
    }

    static std::unique_ptr<HttpServer> serverOf(Transport transport, const fakes::TestAuthority& authority) {
        if (transport == Transport::plain) return std::make_unique<HttpServer>();
        return std::make_unique<HttpServer>(authority.issue("127.0.0.1"),
                                            transport == Transport::tls12 ? Flaw::tls12 : Flaw::none);
    }

    fakes::TestAuthority authority;
    const std::unique_ptr<HttpServer> owner = serverOf(GetParam(), authority);
    HttpServer& peer = *owner;
    const std::shared_ptr<Afterwards> script = std::make_shared<Afterwards>();
    const std::string evil = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil";
};

TEST_P(Reuse, DropsAConnectionThatSentASecondAnswer) {
    script->sends = evil;
    peer.on("/first", HttpAnswer::ok("first").with(script));
    EXPECT_EQ(get("/first"), ok);
    EXPECT_EQ(contentOf(target), "first");
    run(*script);
    expectNextDownloadWorks();
}

TEST_P(Reuse, DropsASecondAnswerThatCameWithTheFirst) {
    HttpAnswer both = HttpAnswer::ok("first" + evil);
    both.declaredLength = 5;
    peer.on("/first", both);
    EXPECT_EQ(get("/first"), ok);
    EXPECT_EQ(contentOf(target), "first");
    expectNextDownloadWorks();
}

TEST_P(Reuse, DropsAConnectionThatSentASecondAnswerAfterARedirect) {
    const auto elsewhere = serverOf(GetParam(), authority);
    elsewhere->on("/there", HttpAnswer::ok("there"));
    script->sends = evil;
    peer.on("/first", HttpAnswer::redirect(elsewhere->url("/there")).with(script));
    EXPECT_EQ(get("/first"), ok);
    EXPECT_EQ(contentOf(target), "there");
    run(*script);
    expectNextDownloadWorks();
}

TEST_P(Reuse, KeepsTheConnectionAfterRedirectsAndWholeFiles) {
    peer.on("/first", HttpAnswer::redirect("/good"));
    EXPECT_EQ(get("/first"), ok);
    EXPECT_EQ(get("/good"), ok);
    EXPECT_EQ(connectionOf("/first"), 1U);
    EXPECT_EQ(connectionOf("/good"), 1U);
}

class ReuseAfter : public Reuse {
 protected:
    // After a response without a body, or with a shorter one, the server sends more.
    void expectDropped(const std::string& answer, int status) {
        script->sends = evil;
        peer.on("/first", HttpAnswer::bytes(answer).with(script));
        EXPECT_EQ(get("/first"), ok);
        EXPECT_EQ(curl->getHttpCode(), status);
        run(*script);
        expectNextDownloadWorks();
        EXPECT_EQ(connectionOf("/good"), 2U);
    }
};

TEST_P(ReuseAfter, NoContentWithABody) { expectDropped("HTTP/1.1 204 No Content\r\nContent-Length: 44\r\n\r\n", 204); }

TEST_P(ReuseAfter, NotModifiedWithABody) {
    expectDropped("HTTP/1.1 304 Not Modified\r\nContent-Length: 44\r\n\r\n", 304);
}

TEST_P(ReuseAfter, NotFoundWithMoreThanItsLength) {
    expectDropped("HTTP/1.1 404 Not Found\r\nContent-Length: 3\r\n\r\nabc", 404);
}

class ReuseOfTls : public Reuse {};

TEST_P(ReuseOfTls, CloseNotifyOnAnIdleConnectionDoesNotEndTheNextBody) {
    script->closes = true;
    peer.on("/first", HttpAnswer::ok("first").with(script));
    peer.on("/cut", withoutLength(body, Ending::withoutCloseNotify));
    EXPECT_EQ(get("/first"), ok);
    run(*script);
    EXPECT_EQ(get("/cut"), partialFile);
    EXPECT_EQ(connectionOf("/cut"), 2U);
    EXPECT_EQ(contentOf(target), "first");
}

// libcurl repeats the request on a new connection, within the same transfer.
TEST_P(ReuseOfTls, CloseNotifyInsteadOfAnAnswerDoesNotEndTheBodyOfTheNextConnection) {
    peer.on("/cut", {HttpAnswer::bytes(""), withoutLength(body, Ending::withoutCloseNotify)});
    EXPECT_EQ(get("/good"), ok);
    EXPECT_EQ(get("/cut"), partialFile);
    ASSERT_EQ(peer.requestsFor("/cut").size(), 2U);
    EXPECT_EQ(contentOf(target), "good");
}

TEST_P(ReuseOfTls, CloseNotifyEndsABodyAfterAnotherConnectionWasClosed) {
    peer.on("/whole", {HttpAnswer::bytes(""), withoutLength(body, Ending::orderly)});
    EXPECT_EQ(get("/good"), ok);
    EXPECT_EQ(get("/whole"), ok);
    ASSERT_EQ(peer.requestsFor("/whole").size(), 2U);
    EXPECT_EQ(contentOf(target), body);
}

constexpr Transport all[] = {Transport::plain, Transport::tls12, Transport::tls13};
constexpr Transport secure[] = {Transport::tls12, Transport::tls13};

std::string nameOf(const testing::TestParamInfo<Transport>& info) {
    if (info.param == Transport::plain) return "Plain";
    return info.param == Transport::tls12 ? "Tls12" : "Tls13";
}

INSTANTIATE_TEST_SUITE_P(Download, Reuse, testing::ValuesIn(all), nameOf);
INSTANTIATE_TEST_SUITE_P(Download, ReuseAfter, testing::ValuesIn(all), nameOf);
INSTANTIATE_TEST_SUITE_P(Download, ReuseOfTls, testing::ValuesIn(secure), nameOf);

}  // namespace
