#include "security/Security.h"

#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "Lookup.h"
#include "common/PathRoot.h"
#include "common/TemporaryFolder.h"
#include "fakes/FakeProperties.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"

namespace {

using Hours = fakes::TestAuthority::Hours;

const std::string phoneBundle = "/custom/certs/ca-bundle.pem";

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

using lookup::finds;

class Security : public testing::Test {
 protected:
    Security() { std::filesystem::remove_all(phoneBundle); }
    ~Security() override { std::filesystem::remove_all(phoneBundle); }

    static std::string logOf(const std::function<void()>& work) {
        testing::internal::CaptureStderr();
        work();
        return testing::internal::GetCapturedStderr();
    }
    std::string notification() {
        return logOf([this] { security.notifySystemAboutNewCertificates(); });
    }

    std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>();
    fakes::TestAuthority authority;
    zav::Security security{properties};
};

TEST_F(Security, TrustsTheSystemBundle) { EXPECT_GT(security.trustedCertificates()->count(), 50U); }

TEST_F(Security, ConstructorReadsNoProperty) {
    EXPECT_TRUE(properties->reads().empty());
    EXPECT_TRUE(properties->writes().empty());
}

TEST_F(Security, MissingPhoneBundleIsNotLogged) {
    EXPECT_EQ(logOf([this] { const zav::Security other(properties); }), "");
}

TEST_F(Security, AddsThePhonesBundleOnReload) {
    const auto before = security.trustedCertificates();
    writeFile(phoneBundle, authority.certificate());
    EXPECT_EQ(security.trustedCertificates(), before);
    security.reloadCertificates();
    const auto after = security.trustedCertificates();
    EXPECT_EQ(after->count(), before->count() + 1);
    EXPECT_NE(after->store(), before->store());
}

// The others stay unparsed.
TEST_F(Security, StoreParsesTheCertificatesOfTheSubjectThatIsLookedFor) {
    const fakes::TestAuthority ofTheSameName;
    const fakes::TestAuthority other("Other authority");
    writeFile(phoneBundle, authority.certificate() + ofTheSameName.certificate() + other.certificate());
    security.reloadCertificates();
    X509_STORE* const store = security.trustedCertificates()->store();
    const auto parsed = [store] { return sk_X509_OBJECT_num(X509_STORE_get0_objects(store)); };
    EXPECT_EQ(parsed(), 0);
    for (int time = 0; time < 2; ++time) {
        EXPECT_TRUE(finds(store, "Test authority"));
        EXPECT_EQ(parsed(), 2);
    }
    EXPECT_FALSE(finds(store, "Unknown authority"));
    EXPECT_EQ(parsed(), 2);
    EXPECT_TRUE(finds(store, "Other authority"));
    EXPECT_EQ(parsed(), 3);
}

TEST_F(Security, ReloadWithoutChangesKeepsTheObject) {
    const auto before = security.trustedCertificates();
    security.reloadCertificates();
    EXPECT_EQ(security.trustedCertificates(), before);
    writeFile(phoneBundle, authority.certificate());
    security.reloadCertificates();
    const auto one = security.trustedCertificates();
    writeFile(phoneBundle, "# the same\n" + authority.certificate() + authority.certificate());
    security.reloadCertificates();
    EXPECT_EQ(security.trustedCertificates(), one);
}

TEST_F(Security, KeepsTheValidCertificatesOfADamagedBundle) {
    const auto count = security.trustedCertificates()->count();
    const std::string broken = "-----BEGIN CERTIFICATE-----\nbm90IG9uZQ==\n-----END CERTIFICATE-----\n";
    writeFile(phoneBundle, broken + authority.certificate() + "-----BEGIN CERTIFICATE-----\n!!!\n");
    const std::string log = logOf([this] { security.reloadCertificates(); });
    EXPECT_NE(log.find("warning"), std::string::npos) << log;
    EXPECT_NE(log.find(phoneBundle), std::string::npos) << log;
    EXPECT_EQ(security.trustedCertificates()->count(), count + 1);
}

TEST_F(Security, CountsASingleDamagedEntry) {
    writeFile(phoneBundle, "-----BEGIN CERTIFICATE-----\nbm90IG9uZQ==\n-----END CERTIFICATE-----\n");
    const std::string log = logOf([this] { security.reloadCertificates(); });
    EXPECT_NE(log.find(std::string(phoneBundle) + ": 1 damaged entries, ignored"), std::string::npos) << log;
}

TEST_F(Security, IgnoresABundleLargerThanMemory) {
    const auto before = security.trustedCertificates();
    writeFile(phoneBundle, "");
    std::filesystem::resize_file(phoneBundle, std::uintmax_t{3} << 30U);
    const std::string log = logOf([this] { security.reloadCertificates(); });
    EXPECT_NE(log.find(std::string("Cannot read ") + phoneBundle + ": too long"), std::string::npos) << log;
    EXPECT_EQ(security.trustedCertificates(), before);
}

TEST_F(Security, IgnoresABundleWithoutCertificates) {
    const auto before = security.trustedCertificates();
    for (const std::string text : {"", "not a certificate", "-----BEGIN CERTIFICATE-----"}) {
        writeFile(phoneBundle, text);
        EXPECT_NO_THROW(security.reloadCertificates());
        EXPECT_EQ(security.trustedCertificates(), before) << text;
    }
    std::filesystem::remove(phoneBundle);
    std::filesystem::create_directory(phoneBundle);
    const std::string log = logOf([this] { security.reloadCertificates(); });
    EXPECT_NE(log.find("not a regular file"), std::string::npos) << log;
    EXPECT_EQ(security.trustedCertificates(), before);
}

TEST_F(Security, AnnouncesEachChangeOnce) {
    EXPECT_EQ(notification(), "");
    writeFile(phoneBundle, authority.certificate());
    EXPECT_EQ(notification(), "");  // not reloaded yet
    security.reloadCertificates();
    const std::string expected =
        "Trusted certificates changed: " + std::to_string(security.trustedCertificates()->count()) + " certificates\n";
    EXPECT_NE(notification().find(expected), std::string::npos);
    EXPECT_EQ(notification(), "");
    std::filesystem::remove(phoneBundle);
    security.reloadCertificates();
    EXPECT_NE(notification().find("Trusted certificates changed: "), std::string::npos);
    EXPECT_TRUE(properties->writes().empty());
    EXPECT_TRUE(properties->reads().empty());
}

TEST_F(Security, DoesNotAnnounceAChangeThatWasReverted) {
    writeFile(phoneBundle, authority.certificate());
    security.reloadCertificates();
    std::filesystem::remove(phoneBundle);
    security.reloadCertificates();
    EXPECT_EQ(notification(), "");
}

TEST_F(Security, MayBeUsedFromManyThreads) {
    writeFile(phoneBundle, authority.certificate());
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this] {
            security.reloadCertificates();
            EXPECT_NE(security.trustedCertificates()->store(), nullptr);
            security.notifySystemAboutNewCertificates();
        });
    }
    for (auto& thread : threads) thread.join();
}

// A phone whose system bundle is a file of the test.
class SystemBundle : public testing::Test {
 protected:
    SystemBundle() {
        common::setPathRoot(folder.path());
        write(authority.certificate());
    }
    ~SystemBundle() override { common::setPathRoot(""); }

    void write(const std::string& content) const { writeFile(bundle, content); }
    // As the system's own tool does.
    void replace(const std::string& content) const {
        writeFile(bundle + ".new", content);
        std::filesystem::rename(bundle + ".new", bundle);
    }
    static bool trusts(const zav::Security& security, const char* authority) {
        return finds(security.trustedCertificates()->store(), authority);
    }

    const common::TemporaryFolder folder{"zav-test"};
    const std::string bundle = folder.path() + "/etc/ssl/certs/ca-certificates.crt";
    const fakes::TestAuthority authority;
    const fakes::TestAuthority other{"Other authority"};
    const std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>();
    const fakes::LogCapture log;
};

TEST_F(SystemBundle, ReplacementCountsFromTheReloadOn) {
    zav::Security security(properties);
    replace(other.certificate());
    EXPECT_TRUE(trusts(security, "Test authority"));
    EXPECT_FALSE(trusts(security, "Other authority"));
    security.reloadCertificates();
    EXPECT_FALSE(trusts(security, "Test authority"));
    EXPECT_TRUE(trusts(security, "Other authority"));
}

TEST_F(SystemBundle, ReloadReadsARepairedBundleWithTheSameCertificates) {
    zav::Security security(properties);
    const auto damaged = security.trustedCertificates();
    std::filesystem::resize_file(bundle, 0);
    EXPECT_FALSE(trusts(security, "Test authority"));
    replace(authority.certificate());
    security.reloadCertificates();
    EXPECT_TRUE(trusts(security, "Test authority"));
    EXPECT_NE(security.trustedCertificates(), damaged);
    log.lines();
    security.notifySystemAboutNewCertificates();
    EXPECT_EQ(log.count(fakes::warning("platform/security/src/BundleFile",
                                       "A trusted certificate cannot be used: /etc/ssl/certs/ca-certificates.crt was "
                                       "changed and no longer has it")),
              1U)
        << log.text();
    EXPECT_EQ(log.lines().size(), 1U) << log.text();
}

TEST_F(SystemBundle, ReplacedFileIsClosedOnceItsReplacementIsAnnounced) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    };
    zav::Security security(properties);
    EXPECT_TRUE(trusts(security, "Test authority"));
    const auto before = descriptors();
    for (int update = 0; update < 3; ++update) {
        replace(authority.certificate());
        security.reloadCertificates();
        security.notifySystemAboutNewCertificates();
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(SystemBundle, MissingOneIsLoggedAndThePhonesOwnIsTrusted) {
    std::filesystem::remove(bundle);
    writeFile(folder.path() + phoneBundle, other.certificate());
    const zav::Security security(properties);
    EXPECT_TRUE(trusts(security, "Other authority"));
    EXPECT_EQ(security.trustedCertificates()->count(), 1U);
    EXPECT_EQ(log.lines(), (fakes::LogCapture::Lines{fakes::warning(
                               "platform/security/src/Security",
                               "Certificate bundle: Cannot read /etc/ssl/certs/ca-certificates.crt: No such file or "
                               "directory")}))
        << log.text();
}

// The phone's bundle is kept in memory.
TEST_F(SystemBundle, LossOfOneDoesNotAffectTheOther) {
    writeFile(folder.path() + phoneBundle, authority.certificate());
    const zav::Security security(properties);
    EXPECT_EQ(security.trustedCertificates()->count(), 1U);
    std::filesystem::resize_file(bundle, 0);
    std::filesystem::resize_file(folder.path() + phoneBundle, 0);
    EXPECT_TRUE(trusts(security, "Test authority"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(SystemBundle, DamagedEntriesAreCounted) {
    write("-----BEGIN CERTIFICATE-----\n!!!\n-----END CERTIFICATE-----\n" + authority.certificate());
    const zav::Security security(properties);
    EXPECT_EQ(security.trustedCertificates()->count(), 1U);
    EXPECT_EQ(log.lines(), (fakes::LogCapture::Lines{fakes::warning(
                               "platform/security/src/Security",
                               "Certificate bundle /etc/ssl/certs/ca-certificates.crt: 1 damaged entries, ignored")}))
        << log.text();
}

class CertificateCheck : public Security {
 protected:
    int check(const std::string& content) {
        writeFile(path, content);
        return security.checkCertificate(path);
    }
    const std::string path = "/custom/certs/_storage/checked.pem";
};

TEST_F(CertificateCheck, AcceptsPemAndDer) {
    const auto good = authority.issue("phone.example");
    EXPECT_EQ(check(good.certificate), 1);
    EXPECT_EQ(check(good.der), 1);
    EXPECT_EQ(check(authority.certificate()), 1);
    EXPECT_EQ(check("subject=phone\r\n" + good.certificate + "\nsome text\n"), 1);
}

TEST_F(CertificateCheck, AcceptsDatesBeyond2038) {
    constexpr Hours thirtyYears(30 * 365 * 24);
    EXPECT_EQ(check(authority.issue("phone.example", Hours(-1), thirtyYears).certificate), 1);
}

TEST_F(CertificateCheck, RejectsExpiredAndFutureCertificates) {
    const auto over = authority.issue("phone.example", Hours(-48), Hours(-1));
    const auto early = authority.issue("phone.example", Hours(1), Hours(48));
    EXPECT_EQ(check(over.certificate), 0);
    EXPECT_EQ(check(over.der), 0);
    EXPECT_EQ(check(early.certificate), 0);
    EXPECT_EQ(check(early.der), 0);
}

TEST_F(CertificateCheck, RejectsAnythingButOneCertificate) {
    const auto good = authority.issue("phone.example");
    EXPECT_EQ(check(""), 0);
    EXPECT_EQ(check("<html>404</html>"), 0);
    EXPECT_EQ(check(good.key), 0);
    EXPECT_EQ(check(good.certificate + authority.certificate()), 0);
    EXPECT_EQ(check(good.der + "x"), 0);
    EXPECT_EQ(check(good.der.substr(0, good.der.size() - 1)), 0);
    EXPECT_EQ(check(good.certificate.substr(0, good.certificate.size() / 2)), 0);
    EXPECT_EQ(check(good.certificate + "-----BEGIN CERTIFICATE-----\n!!!\n-----END CERTIFICATE-----\n"), 0);
}

TEST_F(CertificateCheck, RejectsOtherBlocksBesideTheCertificate) {
    const auto good = authority.issue("phone.example");
    std::string withTrust = authority.issue("other.example").certificate;
    for (std::size_t at = 0; (at = withTrust.find("CERTIFICATE", at)) != std::string::npos; at += 19) {
        withTrust.insert(at, "TRUSTED ");
    }
    ASSERT_EQ(withTrust.rfind("-----BEGIN TRUSTED CERTIFICATE-----", 0), 0U);
    EXPECT_EQ(check(withTrust + good.certificate), 0);
    EXPECT_EQ(check(good.certificate + withTrust), 0);
    EXPECT_EQ(check(good.key + good.certificate), 0);
    EXPECT_EQ(check(good.certificate + good.key), 0);
}

TEST_F(CertificateCheck, ThrowsForAFileThatCannotBeRead) {
    std::filesystem::remove(path);
    EXPECT_THROW(security.checkCertificate(path), std::runtime_error);
    EXPECT_THROW(security.checkCertificate("/custom/certs/_storage"), std::runtime_error);
    EXPECT_THROW(check(std::string((1U << 20U) + 1, 'x')), std::runtime_error);
    // A symbolic link to a valid certificate.
    EXPECT_EQ(check(authority.certificate()), 1);
    const std::string link = path + ".link";
    std::filesystem::remove(link);
    std::filesystem::create_symlink(path, link);
    EXPECT_THROW(security.checkCertificate(link), std::runtime_error);
}

}  // namespace
