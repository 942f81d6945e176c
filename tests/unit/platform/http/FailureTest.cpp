// After a failed download, the next one with the same client works.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <functional>
#include <ostream>

#include "DownloadFixture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::Ending;
using fakes::Flaw;
using fakes::HttpAnswer;
using fakes::HttpServer;
using fakes::TestAuthority;

const std::string head = "HTTP/1.1 200 OK\r\n";
const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n";
constexpr long anyStatus = -1;
constexpr bool atTheLimit = true;

// Short for rows that end at a time limit; otherwise long enough for a busy machine.
zav::CurlSettings timeouts(bool waits) {
    const std::chrono::seconds limit(waits ? 1 : 20);
    zav::CurlSettings settings;
    settings.connectTimeout = limit;
    settings.stallTimeout = limit;
    return settings;
}

class AfterFailure;

struct Row {
    const char* name;
    std::vector<int> results;  // any of these
    std::function<int(AfterFailure&)> run;
    long status = 0;
    bool waits = false;  // ends at a time limit
};

void PrintTo(const Row& row, std::ostream* stream) { *stream << row.name; }

class AfterFailure : public Fixture {
 public:
    explicit AfterFailure(bool waits = false) : Fixture(timeouts(waits)) {
        trust(authority.certificate());
        server.on("/good", HttpAnswer::ok("good"));
        secure.on("/good", HttpAnswer::ok("good over TLS"));
    }

    // Each runs one download and returns its result.
    int get(const std::string& url) { return fetch(url, target); }
    int storeAt(const std::string& destination) { return fetch(server.url("/good"), destination); }
    int answered(const HttpAnswer& answer) { return answeredBy(server, answer); }
    int answeredOverTls(const HttpAnswer& answer) { return answeredBy(secure, answer); }
    int answeredWith(const std::string& bytes) { return answered(HttpAnswer::bytes(bytes)); }
    int redirected(const std::string& location) { return answered(HttpAnswer::redirect(location)); }
    int flooded(const std::string& bytes, const std::string& endlessly) {
        return answered(HttpAnswer::bytes(bytes).followedBy(endlessly));
    }
    int stalling(const HttpAnswer& answer) {
        return answered(answer.stallingAfter(0, std::make_shared<fakes::Gate>()));
    }
    int getWithCertificate(const fakes::TestCertificate& certificate, Flaw flaw = Flaw::none) {
        return get(HttpServer(certificate, flaw).url("/"));
    }
    int ontoAFullDisk() {
        const std::string small = folder + "/small";
        std::filesystem::create_directories(small);
        if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") != 0) return -1;
        server.on("/large", large());
        const int result = fetch(server.url("/large"), small + "/file");
        ::umount(small.c_str());
        std::filesystem::remove(small);
        return result;
    }

    static HttpAnswer large() { return HttpAnswer::ok(largeBody()); }
    static std::string largeBody() { return std::string(500000, 'l'); }
    fakes::TestCertificate issued(int beginHours, int endHours) const {
        return authority.issue("127.0.0.1", TestAuthority::Hours(beginHours), TestAuthority::Hours(endHours));
    }
    static std::string closedPort() { return HttpServer().url("/"); }
    static std::string labels(int count) {
        std::string text;
        for (int label = 0; label < count; ++label) text += ".a";
        return text;
    }

    void expectFailure(const Row& row) {
        EXPECT_THAT(row.results, testing::Contains(row.run(*this)));
        if (row.status != anyStatus) {
            EXPECT_EQ(curl->getHttpCode(), row.status);
        }
        EXPECT_TRUE(namesIn(folder).empty());
    }

    void expectNextDownloadWorks() {
        EXPECT_EQ(get(server.url("/good")), ok);
        EXPECT_EQ(curl->getHttpCode(), 200);
        EXPECT_EQ(contentOf(target), "good");
        EXPECT_EQ(get(secure.url("/good")), ok);
        EXPECT_EQ(contentOf(target), "good over TLS");
    }

    using Fixture::server;
    TestAuthority authority;
    HttpServer secure{authority};

 private:
    int answeredBy(HttpServer& which, const HttpAnswer& answer) {
        which.on("/bad", answer);
        return get(which.url("/bad"));
    }
};

using Test = AfterFailure;
using std::string;

const Row rows[] = {
    // Names and connections.
    {"UnknownHost", {hostNotFound}, [](Test& t) { return t.get("http://no-such-host.invalid/a"); }},
    {"UnknownHostOverTls", {hostNotFound}, [](Test& t) { return t.get("https://no-such-host.invalid/a"); }},
    {"LabelTooLong", {hostNotFound}, [](Test& t) { return t.get("http://" + string(70, 'a') + "/a"); }},
    {"HostTooLong", {malformedUrl, hostNotFound}, [](Test& t) { return t.get("http://a" + t.labels(1000) + "/a"); }},
    {"NonAsciiHost", {malformedUrl, hostNotFound}, [](Test& t) { return t.get("http://\xc3\xbc.invalid/a"); }},
    {"Refused", {couldNotConnect}, [](Test& t) { return t.get(t.closedPort()); }},
    {"Silence",
     {timedOut},
     [](Test& t) { return t.get(HttpServer("127.0.0.1", 0, Flaw::silent).url("/")); },
     0,
     atTheLimit},
    // TLS.
    {"UnknownAuthority",
     {peerNotVerified},
     [](Test& t) { return t.getWithCertificate(TestAuthority("X").issue("127.0.0.1")); }},
    {"AuthorityOfTheSameName",
     {tlsFailed},
     [](Test& t) { return t.getWithCertificate(TestAuthority().issue("127.0.0.1")); }},
    {"SelfSigned",
     {peerNotVerified},
     [](Test& t) { return t.getWithCertificate(TestAuthority::selfSigned("127.0.0.1")); }},
    {"WrongName",
     {peerNotVerified},
     [](Test& t) { return t.getWithCertificate(t.authority.issue("elsewhere.example")); }},
    {"Expired", {peerNotVerified}, [](Test& t) { return t.getWithCertificate(t.issued(-48, -24)); }},
    {"NotYetValid", {peerNotVerified}, [](Test& t) { return t.getWithCertificate(t.issued(24, 48)); }},
    {"OldTls", {tlsFailed}, [](Test& t) { return t.getWithCertificate(t.issued(-1, 1), Flaw::oldTls); }},
    {"HandshakeCut", {tlsFailed}, [](Test& t) { return t.getWithCertificate(t.issued(-1, 1), Flaw::cutsHandshake); }},
    {"HandshakeStalls",
     {timedOut},
     [](Test& t) { return t.getWithCertificate(t.issued(-1, 1), Flaw::silent); },
     0,
     atTheLimit},
    {"PlainHttpOnATlsPort", {tlsFailed}, [](Test& t) { return t.get("https" + t.server.url("/a").substr(4)); }},
    {"TlsOnAPlainPort",
     {noResponse, receiveError},
     [](Test& t) { return t.get("http" + t.secure.url("/a").substr(5)); }},
    {"TlsCutInsideTheHeaders",
     {receiveError},
     [](Test& t) { return t.answeredOverTls(HttpAnswer::bytes(head + "Con", Ending::withoutCloseNotify)); },
     200},
    {"TlsCutInsideTheBody",
     {partialFile, receiveError},
     [](Test& t) { return t.answeredOverTls(t.large().cutOffAfter(9000, Ending::withoutCloseNotify)); },
     200},
    {"TlsCutWhereTheBodyMightEnd",
     {partialFile, receiveError},
     [](Test& t) {
         return t.answeredOverTls(withoutLength(t.largeBody()).cutOffAfter(9000, Ending::withoutCloseNotify));
     },
     200},
    // Interruptions.
    {"ClosedBeforeTheAnswer", {noResponse}, [](Test& t) { return t.answeredWith(""); }},
    {"ResetBeforeTheAnswer", {receiveError}, [](Test& t) { return t.answered(HttpAnswer::bytes("", Ending::reset)); }},
    {"ClosedInsideTheStatusLine", {noResponse}, [](Test& t) { return t.answeredWith("HTTP/1.1 200 O"); }, anyStatus},
    {"ClosedInsideTheHeaders", {receiveError}, [](Test& t) { return t.answeredWith(head + "A: b\r\nCon"); }, 200},
    {"ClosedAfterAnInterimAnswer",
     {receiveError},
     [](Test& t) { return t.answeredWith("HTTP/1.1 103 Early Hints\r\n\r\n" + head + "A: b\r\n"); },
     200},
    {"ClosedBeforeTheHeadersEnd", {receiveError}, [](Test& t) { return t.answeredWith(head + "A: b\r\n"); }, 200},
    {"ResetInsideTheHeaders",
     {receiveError},
     [](Test& t) { return t.answered(HttpAnswer::bytes(head + "Con", Ending::reset)); },
     anyStatus},
    {"ClosedInsideTheBody", {partialFile}, [](Test& t) { return t.answered(t.large().cutOffAfter(9000)); }, 200},
    {"ResetInsideTheBody",
     {receiveError},
     [](Test& t) { return t.answered(t.large().cutOffAfter(9000, Ending::reset)); },
     anyStatus},
    {"StallInsideTheHeaders",
     {timedOut},
     [](Test& t) { return t.stalling(HttpAnswer::bytes(head + "Con")); },
     200,
     atTheLimit},
    {"StallInsideTheBody", {timedOut}, [](Test& t) { return t.stalling(t.large()); }, 200, atTheLimit},
    // Invalid responses.
    {"NotHttp", {unsupportedProtocol}, [](Test& t) { return t.answeredWith("SSH-2.0-x\r\n"); }},
    {"UnknownVersion", {unsupportedProtocol}, [](Test& t) { return t.answeredWith("HTTP/9.9 200 OK\r\n\r\n"); }},
    {"NulInAHeader", {invalidResponse}, [](Test& t) { return t.answeredWith(head + string("A: \0\r\n\r\n", 8)); }, 200},
    {"BadLength", {invalidResponse}, [](Test& t) { return t.answeredWith(head + "Content-Length: x\r\n\r\n"); }, 200},
    {"TwoLengths",
     {invalidResponse, partialFile},
     [](Test& t) { return t.answeredWith(head + "Content-Length: 3\r\nContent-Length: 9\r\n\r\nabc"); },
     200},
    {"LengthTooGreat",
     {partialFile},
     [](Test& t) { return t.answeredWith(head + "Content-Length: 9\r\n\r\nabc"); },
     200},
    {"BadChunkSize", {receiveError}, [](Test& t) { return t.answeredWith(head + chunked + "xyz\r\n"); }, 200},
    {"ChunkSizeTooGreat",
     {receiveError},
     [](Test& t) { return t.answeredWith(head + chunked + "fffffffffffffffff\r\n"); },
     200},
    {"ChunkCut", {partialFile}, [](Test& t) { return t.answeredWith(head + chunked + "ff\r\nabc"); }, 200},
    {"LastChunkMissing", {partialFile}, [](Test& t) { return t.answeredWith(head + chunked + "3\r\nabc\r\n"); }, 200},
    {"UnknownTransferCoding",
     {badCoding},
     [](Test& t) { return t.answeredWith(head + "Transfer-Encoding: nonsense\r\n\r\nabc"); },
     200},
    {"DamagedTransferCoding",
     {badCoding},
     [](Test& t) { return t.answeredWith(head + "Transfer-Encoding: gzip, chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n"); },
     200},
    {"ContentCoding",
     {badCoding},
     [](Test& t) {
         return t.answered(HttpAnswer::ok("abc", {{"Content-Encoding", "gzip"}}));
     },
     200},
    {"HeaderLineTooLong",
     {outOfMemory, invalidResponse},
     [](Test& t) { return t.answeredWith(head + "A: " + string(150000, 'a') + "\r\n\r\n"); },
     200},
    {"HeadersWithoutEnd", {invalidResponse}, [](Test& t) { return t.flooded(head, "A: b\r\n"); }, 200},
    {"TrailersWithoutEnd",
     {invalidResponse},
     [](Test& t) { return t.flooded(head + chunked + "0\r\n", "A: b\r\n"); },
     200},
    {"InterimAnswersWithoutEnd",
     {invalidResponse},
     [](Test& t) { return t.flooded("", "HTTP/1.1 103 Early Hints\r\nA: b\r\n\r\n"); },
     103},
    // Redirects.
    {"RedirectLoop", {tooManyRedirects}, [](Test& t) { return t.redirected("/bad"); }, 302},
    {"RedirectToAnUnknownHost", {hostNotFound}, [](Test& t) { return t.redirected("http://no-such-host.invalid/"); }},
    {"RedirectToALabelTooLong", {hostNotFound}, [](Test& t) { return t.redirected("http://" + string(70, 'a')); }},
    {"RedirectToANonAsciiHost",
     {malformedUrl, hostNotFound},
     [](Test& t) { return t.redirected("http://\xc3\xbc.invalid/"); },
     anyStatus},
    {"RedirectToAClosedPort", {couldNotConnect}, [](Test& t) { return t.redirected(t.closedPort()); }},
    {"RedirectToAnInvalidUrl", {malformedUrl}, [](Test& t) { return t.redirected("http://[::1/"); }, 302},
    {"RedirectToAnotherScheme", {unsupportedProtocol}, [](Test& t) { return t.redirected("ftp://127.0.0.1/"); }, 302},
    // Files.
    {"TooLarge", {tooLarge}, [](Test& t) { return t.flooded(head + "\r\n", string(65536, 'x')); }, 200},
    {"FullDisk", {writeError}, [](Test& t) { return t.ontoAFullDisk(); }, 200},
    {"NoSuchFolder", {writeError}, [](Test& t) { return t.storeAt("/proc/no/such/file"); }},
    // Responses without a file.
    {"NoContent", {ok}, [](Test& t) { return t.answered(HttpAnswer::error(204)); }, 204},
    {"UnrequestedPart", {ok}, [](Test& t) { return t.answered(HttpAnswer::error(206)); }, 206},
    {"NotModified", {ok}, [](Test& t) { return t.answered(HttpAnswer::error(304)); }, 304},
    {"Unauthorized", {ok}, [](Test& t) { return t.answered(HttpAnswer::error(401)); }, 401},
    {"NotFound", {ok}, [](Test& t) { return t.answered(HttpAnswer::error(404)); }, 404},
    {"ErrorPageWithoutEnd", {ok}, [](Test& t) { return t.flooded("HTTP/1.1 500 E\r\n\r\n", string(9000, 'e')); }, 500},
};

class Failure : public AfterFailure, public testing::WithParamInterface<Row> {
 protected:
    Failure() : AfterFailure(GetParam().waits) {}
};

TEST_P(Failure, DoesNotAffectTheNextDownload) {
    expectFailure(GetParam());
    expectNextDownloadWorks();
}

INSTANTIATE_TEST_SUITE_P(Download, Failure, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(AfterFailure, OtherFailuresHaveTheSameResult) {
    for (const Row& row : rows) {
        if (row.waits) continue;
        SCOPED_TRACE(row.name);
        expectFailure(row);
    }
    expectNextDownloadWorks();
}

}  // namespace
