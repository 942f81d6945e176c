#include "http/ServerProbe.h"

#include "DownloadFixture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using zav::ServerProbe;
using Step = ServerProbe::Step;
using Hours = fakes::TestAuthority::Hours;

class Probe : public Fixture {
 protected:
    ServerProbe probe(const std::string& url, std::chrono::seconds timeout = std::chrono::seconds(20)) const {
        return zav::probeServer(zav::UrlInfo(url), security, timeout);
    }

    fakes::TestAuthority authority;
};

TEST_F(Probe, ConnectsWithoutARequest) {
    const ServerProbe found = probe(server.url("/a.xml"));
    EXPECT_EQ(found.failed, Step::none) << found.reason;
    EXPECT_EQ(found.address, "127.0.0.1");
    EXPECT_FALSE(found.expires);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Probe, FindsTheFirstExpiry) {
    trust(authority.certificate());
    const fakes::HttpServer secure(authority.issue("127.0.0.1", Hours(-1), Hours(5)));
    const auto now = std::chrono::system_clock::now();
    const ServerProbe found = probe(secure.url("/"));
    EXPECT_EQ(found.failed, Step::none) << found.reason;
    ASSERT_TRUE(found.expires);
    EXPECT_GT(*found.expires, now + Hours(4));
    EXPECT_LT(*found.expires, now + Hours(6));
}

TEST_F(Probe, NamesTheStepThatFailed) {
    trust(authority.certificate());
    const fakes::HttpServer old(authority.issue("127.0.0.1", Hours(-2), Hours(-1)));
    const fakes::HttpServer foreign(fakes::TestAuthority("Another authority").issue("127.0.0.1"));
    const fakes::HttpServer otherHost(authority.issue("elsewhere.example"));
    const struct {
        std::string url;
        Step step;
        std::string reason;
    } rows[] = {{"http://nowhere.invalid/", Step::nameLookup, "Could not resolve host: nowhere.invalid"},
                {"http://127.0.0.1:1/", Step::connection, "Failed to connect to 127.0.0.1 port 1"},
                {old.url("/"), Step::tls, "certificate has expired"},
                {foreign.url("/"), Step::tls, "unable to get local issuer certificate"},
                {otherHost.url("/"), Step::tls, "no alternative certificate subject name matches"}};
    for (const auto& row : rows) {
        const ServerProbe found = probe(row.url);
        EXPECT_EQ(found.failed, row.step) << row.url << found.reason;
        EXPECT_NE(found.reason.find(row.reason), std::string::npos) << found.reason;
    }
}

TEST_F(Probe, SilentServerFailsAtTlsAfterTheTimeout) {
    const fakes::HttpServer silent("127.0.0.1", 0, fakes::Flaw::silent);
    const ServerProbe found =
        probe("https://127.0.0.1:" + std::to_string(silent.port()) + "/", std::chrono::seconds(1));
    EXPECT_EQ(found.failed, Step::tls) << found.reason;
}

}  // namespace
