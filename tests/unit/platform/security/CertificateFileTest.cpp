#include "security/CertificateFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <system_error>

#include "fakes/TestAuthority.h"

namespace {

using zav::CertificateFile;
using Hours = fakes::TestAuthority::Hours;

const std::string path = "/tmp/bundle.pem";

CertificateFile read(const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    return CertificateFile(path);
}

TEST(CertificateFiles, HaveSubjectsAndDates) {
    const fakes::TestAuthority authority("Some authority");
    const auto now = std::chrono::system_clock::now();
    const auto issued = authority.issue("some.example", Hours(-3), Hours(-1));
    const CertificateFile file = read("A comment\n" + authority.certificate() + issued.key + issued.certificate);
    ASSERT_EQ(file.certificates.size(), 2U);
    EXPECT_EQ(file.damaged, 0U);
    EXPECT_NE(file.certificates[0].subject.find("Some authority"), std::string::npos) << file.certificates[0].subject;
    EXPECT_GT(file.certificates[0].expires, now);
    EXPECT_LT(file.certificates[1].expires, now);
    EXPECT_GT(file.certificates[1].expires, now - Hours(2));
}

TEST(CertificateFiles, DamagedEntriesAreCounted) {
    const std::string good = fakes::TestAuthority().certificate();
    std::string bad = good;
    bad.replace(bad.find("MII"), 3, "!!!");
    const CertificateFile file = read(bad + good);
    EXPECT_EQ(file.certificates.size(), 1U);
    EXPECT_EQ(file.damaged, 1U);
    EXPECT_EQ(read(good.substr(0, good.size() / 2)).damaged, 1U);
    EXPECT_EQ(read("").damaged, 0U);
}

TEST(CertificateFiles, MissingFileIsEmptyAndADeniedOneThrows) {
    EXPECT_TRUE(CertificateFile("/tmp/missing.pem").certificates.empty());
    EXPECT_THROW(CertificateFile("/dev/null/bundle.pem"), std::system_error);
}

}  // namespace
