// The phone presents its own certificate to the configured server, and to no other.
#include "DownloadFixture.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::HttpAnswer;
using fakes::HttpServer;

const std::string identityFile = "/etc/zav.d/device.pem";

class MutualTls : public Fixture {
 protected:
    MutualTls() {
        trust(authority.certificate());
        for (HttpServer* each : {&own, &other}) each->on("/a.xml", HttpAnswer::ok("for a phone"));
        configure(own.url("/phones/"));
    }
    ~MutualTls() override { std::filesystem::remove(identityFile); }

    void configure(const std::string& url) { properties->set("System.Provision.ProvisioningServer", url); }
    void install(const std::string& pem) {
        writeFile(identityFile, pem);
        std::filesystem::permissions(identityFile, std::filesystem::perms(0600));
        security.reloadDeviceIdentity();
    }
    void installPhone(const std::string& name) { install(phones.issue(name).pem()); }
    /// The name that the server read in the certificate for its last request; "-" if the download failed.
    std::string nameSeenBy(const HttpServer& peer) {
        if (fetch(peer.url("/a.xml"), target) != ok) return "-";
        return peer.requests().back().client;
    }

    fakes::TestAuthority authority;
    fakes::TestAuthority phones{"Phones"};
    HttpServer own{authority, phones};
    HttpServer other{authority, phones};
};

TEST_F(MutualTls, PresentedToTheConfiguredServerOnly) {
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(own), "phone-1");
    EXPECT_EQ(nameSeenBy(other), "") << "the same host, another port";
    EXPECT_EQ(nameSeenBy(own), "phone-1");
}

TEST_F(MutualTls, NotPresentedWithoutAFile) { EXPECT_EQ(nameSeenBy(own), ""); }

TEST_F(MutualTls, NotPresentedWithoutAConfiguredServer) {
    installPhone("phone-1");
    configure("");
    EXPECT_EQ(nameSeenBy(own), "");
}

TEST_F(MutualTls, NotPresentedAfterARedirectElsewhere) {
    installPhone("phone-1");
    own.on("/moved.xml", HttpAnswer::redirect(other.url("/a.xml")));
    other.on("/back.xml", HttpAnswer::redirect(own.url("/a.xml")));
    EXPECT_EQ(fetch(own.url("/moved.xml"), target), ok);
    EXPECT_EQ(own.requests().back().client, "phone-1");
    EXPECT_EQ(other.requests().back().client, "");
    EXPECT_EQ(fetch(other.url("/back.xml"), target), ok);
    EXPECT_EQ(own.requests().back().client, "phone-1");
}

TEST_F(MutualTls, FollowsTheConfiguredServer) {
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(other), "");
    configure(other.url("/"));
    EXPECT_EQ(nameSeenBy(other), "phone-1") << "the connection without the certificate must not be reused";
    configure(own.url("/"));
    EXPECT_EQ(nameSeenBy(other), "") << "the connection with the certificate must not be reused";
}

TEST_F(MutualTls, RenewedCertificateReplacesOpenConnections) {
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(own), "phone-1");
    installPhone("phone-2");
    EXPECT_EQ(nameSeenBy(own), "phone-2");
    std::filesystem::remove(identityFile);
    security.reloadDeviceIdentity();
    EXPECT_EQ(nameSeenBy(own), "");
}

TEST_F(MutualTls, ReloadWithoutChangesKeepsTheConnection) {
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(own), "phone-1");
    security.reloadDeviceIdentity();
    EXPECT_EQ(nameSeenBy(own), "phone-1");
    EXPECT_EQ(own.requests().at(0).connection, own.requests().at(1).connection);
}

TEST_F(MutualTls, CertificateOfAnotherAuthorityEndsTheDownloadOnly) {
    install(fakes::TestAuthority("Others").issue("stranger").pem());
    EXPECT_EQ(nameSeenBy(own), "-");
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(own), "phone-1");
}

TEST_F(MutualTls, PlaceholdersInTheConfiguredServerAreExpanded) {
    properties->set("System.General.DeviceID", "127.0.0.1");
    configure("https://%DVID:" + std::to_string(own.port()) + "/");
    installPhone("phone-1");
    EXPECT_EQ(nameSeenBy(own), "phone-1");
}

TEST_F(MutualTls, UnusableServerPropertyIsLogged) {
    installPhone("phone-1");
    for (const std::string text : {"https://%MACC:x/", "https://a b/"}) {
        configure(text);
        const fakes::LogCapture log;
        EXPECT_EQ(nameSeenBy(own), "");
        EXPECT_TRUE(
            log.has(fakes::warning("platform/http/src/Credentials",
                                   "Device certificate not used: System.Provision.ProvisioningServer is not a URL")))
            << log.text();
    }
}

TEST_F(MutualTls, ServerIsReadOncePerDownload) {
    installPhone("phone-1");
    own.on("/again.xml", HttpAnswer::redirect(own.url("/a.xml")));
    EXPECT_EQ(fetch(own.url("/again.xml"), target), ok);
    EXPECT_EQ(own.requests().back().client, "phone-1");
    EXPECT_EQ(properties->reads().size(), 1U);
}

TEST_F(MutualTls, PropertiesAreReadOnlyForACertificate) {
    EXPECT_EQ(nameSeenBy(own), "");
    EXPECT_TRUE(properties->reads().empty());
}

}  // namespace
