#include "DownloadFixture.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

class Tls : public Fixture {
 protected:
    Tls() { secure.on("/a.xml", HttpAnswer::ok("over TLS")); }

    fakes::TestAuthority authority;
    fakes::HttpServer secure{authority};
};

TEST_F(Tls, UnknownAuthorityIsRefused) {
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), peerNotVerified);
    EXPECT_EQ(curl->getHttpCode(), 0);
    EXPECT_TRUE(secure.requests().empty());
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Tls, AuthorityInThePhonesBundleIsTrustedAfterAReload) {
    writeFile(phoneBundle, authority.certificate());
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), peerNotVerified);
    security.reloadCertificates();
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), ok);
    EXPECT_EQ(contentOf(target), "over TLS");
}

TEST_F(Tls, RevokedTrustClosesOpenConnections) {
    trust(authority.certificate());
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), ok);
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), ok);
    EXPECT_EQ(secure.requests().at(0).connection, secure.requests().at(1).connection);
    std::filesystem::remove(phoneBundle);
    security.reloadCertificates();
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), peerNotVerified);
    EXPECT_EQ(secure.requests().size(), 2U);
}

TEST_F(Tls, ReloadWithoutChangesKeepsTheConnection) {
    trust(authority.certificate());
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), ok);
    security.reloadCertificates();
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), ok);
    EXPECT_EQ(secure.requests().at(0).connection, secure.requests().at(1).connection);
}

TEST_F(Tls, CertificateForAnotherHostIsRefused) {
    trust(authority.certificate());
    const fakes::HttpServer other(authority.issue("elsewhere.example"));
    EXPECT_EQ(fetch(other.url("/a.xml"), target), peerNotVerified);
}

TEST_F(Tls, ExpiredCertificateIsRefused) {
    trust(authority.certificate());
    const fakes::HttpServer old(
        authority.issue("127.0.0.1", fakes::TestAuthority::Hours(-48), fakes::TestAuthority::Hours(-24)));
    EXPECT_EQ(fetch(old.url("/a.xml"), target), peerNotVerified);
}

TEST_F(Tls, CertificateOfTheServerItselfMayBeTrusted) {
    const auto shown = authority.issue("127.0.0.1");
    fakes::HttpServer own(shown);
    own.on("/a.xml", HttpAnswer::ok("mine"));
    trust(shown.certificate);
    EXPECT_EQ(fetch(own.url("/a.xml"), target), ok);
}

TEST_F(Tls, VerifiesAfterARedirect) {
    server.on("/a", HttpAnswer::redirect(secure.url("/a.xml")));
    EXPECT_EQ(fetch("/a"), peerNotVerified);
    trust(authority.certificate());
    EXPECT_EQ(fetch("/a"), ok);
    EXPECT_EQ(contentOf(target), "over TLS");
}

TEST_F(Tls, RedirectToHttpIsRefused) {
    trust(authority.certificate());
    server.on("/plain.xml", HttpAnswer::ok("anybody's"));
    secure.on("/moved", HttpAnswer::redirect(server.url("/plain.xml")));
    EXPECT_EQ(fetch(secure.url("/moved"), target), unsupportedProtocol);
    EXPECT_TRUE(server.requestsFor("/plain.xml").empty());
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Tls, DiscardsATruncatedBody) {
    trust(authority.certificate());
    secure.on("/cut", HttpAnswer::ok("a long enough body").cutOffAfter(6));
    EXPECT_EQ(fetch(secure.url("/cut"), target), partialFile);
    EXPECT_TRUE(namesIn(folder).empty());
}

class WithoutLength : public Tls {
 protected:
    WithoutLength() { trust(authority.certificate()); }

    static HttpAnswer answer(fakes::Ending ending) { return withoutLength("a body without a length", ending); }
};

TEST_F(WithoutLength, EndsWithCloseNotify) {
    secure.on("/a", answer(fakes::Ending::orderly));
    EXPECT_EQ(fetch(secure.url("/a"), target), ok);
    EXPECT_EQ(contentOf(target), "a body without a length");
}

TEST_F(WithoutLength, DiscardsABodyWithoutCloseNotify) {
    secure.on("/a", answer(fakes::Ending::withoutCloseNotify));
    const fakes::LogCapture log;
    EXPECT_EQ(fetch(secure.url("/a"), target), partialFile);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(namesIn(folder).empty());
    EXPECT_TRUE(
        log.has(fakes::warning("platform/http/src/Transfer", "The TLS connection was cut before the answer's end")))
        << log.text();
}

TEST_F(WithoutLength, IgnoresCloseNotifyOfAnEarlierConnection) {
    secure.on("/a", {answer(fakes::Ending::orderly), answer(fakes::Ending::withoutCloseNotify)});
    EXPECT_EQ(fetch(secure.url("/a"), target), ok);
    EXPECT_EQ(fetch(secure.url("/a"), target), partialFile);
}

TEST_F(WithoutLength, IsRetriedForFirmware) {
    const std::string image = "/config/swupdate/cut.bin";
    secure.on("/a", {answer(fakes::Ending::withoutCloseNotify), answer(fakes::Ending::orderly)});
    EXPECT_EQ(fetch(secure.url("/a"), image), ok);
    EXPECT_EQ(contentOf(image), "a body without a length");
    EXPECT_EQ(secure.requests().size(), 2U);
    std::filesystem::remove(image);
}

TEST_F(Tls, BodyWithLengthOrChunksNeedsNoCloseNotify) {
    trust(authority.certificate());
    HttpAnswer chunked = HttpAnswer::ok("in chunks");
    chunked.chunked = true;
    chunked.ending = fakes::Ending::withoutCloseNotify;
    HttpAnswer counted = HttpAnswer::ok("with a length");
    counted.ending = fakes::Ending::withoutCloseNotify;
    secure.on("/a", {chunked, counted});
    EXPECT_EQ(fetch(secure.url("/a"), target), ok);
    EXPECT_EQ(contentOf(target), "in chunks");
    EXPECT_EQ(fetch(secure.url("/a"), target), ok);
    EXPECT_EQ(contentOf(target), "with a length");
}

// The clock of the phone is not set.
class UnsetClock : public Fixture {
 protected:
    UnsetClock() : Fixture(settings()) {}

    static zav::CurlSettings settings() {
        zav::CurlSettings settings;
        settings.systemNow = [] { return std::chrono::system_clock::time_point(std::chrono::hours(24)); };
        return settings;
    }

    const fakes::LogLine line =
        fakes::warning("platform/http/src/FileDownloader",
                       "The clock is not set: it shows 1970-01-02, so certificates are not valid yet");
};

TEST_F(UnsetClock, IsLoggedWhenTlsFails) {
    const fakes::TestAuthority authority;
    const fakes::HttpServer secure(authority);
    const fakes::LogCapture log;
    EXPECT_EQ(fetch(secure.url("/a"), target), peerNotVerified);
    EXPECT_EQ(log.count(line), 1U) << log.text();
}

TEST_F(UnsetClock, IsNotLoggedForAnythingElse) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetch("/missing"), ok);
    EXPECT_EQ(log.count(line), 0U);
}

TEST_F(Tls, FailureDoesNotMentionAClockThatIsSet) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), peerNotVerified);
    EXPECT_EQ(log.text().find("clock"), std::string::npos) << log.text();
}

}  // namespace
