// Trusted certificates that stay in their file, while the file changes.
#include "BundleFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "Lookup.h"
#include "common/TemporaryFolder.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"
#include "security/TrustedCertificates.h"

namespace {

using lookup::finds;

constexpr std::size_t limit = 100'000;

class BundleFile : public testing::Test {
 protected:
    void write(const std::string& content) const { std::ofstream(path, std::ios::binary) << content; }
    std::shared_ptr<const zav::BundleFile> open() const { return std::make_shared<const zav::BundleFile>(path, limit); }
    std::unique_ptr<zav::TrustedCertificates> trusted() const {
        return std::make_unique<zav::TrustedCertificates>(open(), std::vector<std::string>{});
    }
    fakes::LogLine warning() const {
        return fakes::warning("platform/security/src/BundleFile",
                              "A trusted certificate cannot be used: " + path + " was changed and no longer has it");
    }

    const common::TemporaryFolder folder{"zav-test"};
    const std::string path = folder.path() + "/bundle.pem";
    const fakes::TestAuthority first{"First authority"};
    const fakes::TestAuthority second{"Second authority"};
    const fakes::LogCapture log;
};

TEST_F(BundleFile, EachCertificateIsReadFromItsPlace) {
    write("# comment\n" + first.certificate() + "\n# another\n\n" + second.certificate() + "# the end\n");
    const auto certificates = trusted();
    EXPECT_EQ(certificates->count(), 2U);
    EXPECT_TRUE(finds(certificates->store(), "Second authority"));
    EXPECT_TRUE(finds(certificates->store(), "First authority"));
    EXPECT_FALSE(finds(certificates->store(), "Third authority"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(BundleFile, ReplacedOrRemovedBundleIsReadAsItWas) {
    write(first.certificate() + second.certificate());
    const auto certificates = trusted();
    std::ofstream(path + ".new") << fakes::TestAuthority("Third authority").certificate();
    std::filesystem::rename(path + ".new", path);
    EXPECT_TRUE(finds(certificates->store(), "First authority"));
    EXPECT_FALSE(finds(certificates->store(), "Third authority"));
    std::filesystem::remove(path);
    EXPECT_TRUE(finds(certificates->store(), "Second authority"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(BundleFile, MovedCertificateIsFound) {
    write(first.certificate() + second.certificate());
    const auto certificates = trusted();
    write("# a longer comment than before\n" + second.certificate() + first.certificate());
    EXPECT_TRUE(finds(certificates->store(), "First authority"));
    EXPECT_TRUE(finds(certificates->store(), "Second authority"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(BundleFile, TruncatedBundleLosesWhatIsMissingWithAWarning) {
    write(first.certificate() + second.certificate());
    const auto certificates = trusted();
    std::filesystem::resize_file(path, first.certificate().size() + second.certificate().size() / 2);
    EXPECT_FALSE(finds(certificates->store(), "Second authority"));
    EXPECT_EQ(log.lines(), fakes::LogCapture::Lines{warning()}) << log.text();
    EXPECT_TRUE(finds(certificates->store(), "First authority"));
    write(first.certificate() + second.certificate());
    EXPECT_TRUE(finds(certificates->store(), "Second authority"));
    EXPECT_EQ(log.lines().size(), 1U) << log.text();
}

// A forged certificate with the name of the trusted one, at its place.
TEST_F(BundleFile, OtherCertificateAtThePlaceIsNotTrusted) {
    write(first.certificate());
    const auto certificates = trusted();
    write(fakes::TestAuthority("First authority").certificate());
    EXPECT_FALSE(finds(certificates->store(), "First authority"));
    EXPECT_EQ(log.lines(), fakes::LogCapture::Lines{warning()}) << log.text();
}

TEST_F(BundleFile, CertificateAddedLaterIsNotTrusted) {
    write(first.certificate());
    const auto certificates = trusted();
    write(first.certificate() + second.certificate());
    EXPECT_FALSE(finds(certificates->store(), "Second authority"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(BundleFile, BundleThatGrowsBeyondTheLimitIsNotRead) {
    write(first.certificate());
    const auto file = open();
    std::filesystem::resize_file(path, limit + 1);
    EXPECT_THROW(static_cast<void>(file->text()), std::runtime_error);
}

TEST_F(BundleFile, KnowsWhetherTheFileHasChanged) {
    write(first.certificate());
    const auto before = open();
    EXPECT_TRUE(before->sameAs(*open()));
    std::filesystem::resize_file(path, 1);
    EXPECT_FALSE(before->sameAs(*open()));
    std::filesystem::copy_file(path, path + ".new");
    const auto shorter = open();
    std::filesystem::rename(path + ".new", path);
    EXPECT_FALSE(shorter->sameAs(*open()));
}

}  // namespace
