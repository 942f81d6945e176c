// Reading certificates and writing downloads while the disk fails.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "BundleFile.h"
#include "Certificates.h"
#include "FailingCalls.h"
#include "PartialFile.h"
#include "common/TemporaryFolder.h"
#include "fakes/FakeProperties.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"
#include "http/Curl.h"
#include "http/FileDownloader.h"
#include "security/Security.h"

namespace {

using failing::Call;
using failing::Calls;

constexpr int ok = 0;
constexpr int writeError = 23;
constexpr int readError = 26;
constexpr int tooLarge = 63;

std::string contentOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class FileFailureTest : public testing::Test {
 protected:
    FileFailureTest() { std::ofstream(path) << "content"; }

    // What the action failed with; "" if it did not.
    static std::string failure(const std::function<void()>& action) {
        try {
            action();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }
    std::string readFailure(std::size_t limit = 100) const {
        return failure([&] { zav::readFile(path, limit, zav::Links::refuse); });
    }
    std::string in(const std::string& name) const { return folder.path() + "/" + name; }

    const common::TemporaryFolder folder{"zav-test"};
    const std::string path = folder.path() + "/file";
};

TEST_F(FileFailureTest, InterruptedReadIsRepeated) {
    const Calls interrupted(Call::pread, EINTR, 2);
    EXPECT_EQ(zav::readFile(path, 100, zav::Links::refuse), "content");
    EXPECT_EQ(interrupted.failed(), 2);
}

TEST_F(FileFailureTest, ReadThatFailsHasItsReason) {
    {
        const Calls broken(Call::pread, EIO, 1, 1);
        EXPECT_EQ(readFailure(), "Cannot read " + path + ": Input/output error");
    }
    const Calls refused(Call::fstat, EIO);
    EXPECT_EQ(readFailure(), "Cannot read " + path + ": Input/output error");
}

TEST_F(FileFailureTest, FileThatGrowsBeyondTheLimitIsTooLong) {
    // The kernel says of this one that it is empty.
    const std::string growing = "/proc/self/status";
    EXPECT_EQ(failure([&] { zav::readFile(growing, 10, zav::Links::refuse); }),
              "Cannot read " + growing + ": too long");
}

class BundleFailure : public FileFailureTest {
 protected:
    BundleFailure() { std::ofstream(path) << "a comment\n" + authority.certificate(); }

    std::string find(const zav::BundleFile& file) const {
        return file.find(zav::digestOf(der), {0, static_cast<std::uint32_t>(std::filesystem::file_size(path))});
    }

    const fakes::TestAuthority authority;
    const std::string der = zav::certificatesFromPem(authority.certificate(), zav::Parse::yes).der.at(0);
    const zav::BundleFile bundle{path, 10'000};
    const fakes::LogCapture log;
};

TEST_F(BundleFailure, InterruptedReadIsRepeated) {
    const Calls interrupted(Call::pread, EINTR, 2);
    EXPECT_EQ(find(bundle), der);
    EXPECT_EQ(interrupted.failed(), 2);
}

TEST_F(BundleFailure, CertificateThatCannotBeReadIsMissingWithAWarning) {
    {
        const Calls broken(Call::pread, EIO, 2);
        EXPECT_EQ(find(bundle), "");
        EXPECT_EQ(broken.failed(), 2);
    }
    EXPECT_EQ(log.lines(), (fakes::LogCapture::Lines{fakes::warning(
                               "platform/security/src/BundleFile",
                               "A trusted certificate cannot be used: Cannot read " + path + ": Input/output error")}));
    EXPECT_EQ(find(bundle), der);
}

TEST_F(BundleFailure, SecondAttemptFindsTheCertificate) {
    const Calls broken(Call::pread, EIO);
    EXPECT_EQ(find(bundle), der);
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(BundleFailure, FileWhoseStateIsUnknownIsNotOpened) {
    const Calls broken(Call::fstat, EIO, 1, 1);
    EXPECT_EQ(failure([this] { const zav::BundleFile other(path, 10'000); }),
              "Cannot read " + path + ": Input/output error");
}

// The certificates of the other bundle count.
TEST_F(BundleFailure, SystemBundleThatCannotBeReadIsIgnoredWithAWarning) {
    const auto properties = std::make_shared<fakes::FakeProperties>();
    zav::Security security(properties);
    std::size_t count = 1;
    {
        const Calls broken(Call::pread, EIO);
        count = security.trustedCertificates()->count();
        EXPECT_EQ(broken.failed(), 1);
    }
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(
        log.lines(),
        (fakes::LogCapture::Lines{fakes::warning("platform/security/src/Security",
                                                 "Certificate bundle: Cannot read /etc/ssl/certs/ca-certificates.crt: "
                                                 "Input/output error")}));
    security.reloadCertificates();
    EXPECT_GT(security.trustedCertificates()->count(), 50U);
}

TEST_F(FileFailureTest, InterruptedWriteOfADownloadIsRepeated) {
    zav::PartialFile file(in("new"));
    const Calls interrupted(Call::write, EINTR, 2);
    file.append("abc", 3);
    file.commit(zav::PartialFile::Sync::no);
    EXPECT_EQ(interrupted.failed(), 2);
    EXPECT_EQ(contentOf(in("new")), "abc");
}

TEST_F(FileFailureTest, DownloadThatCannotBeWrittenLeavesTheOldFile) {
    const std::vector<std::pair<Call, std::string>> failures{
        {Call::write, "Cannot write " + path + ": No space left on device"},
        {Call::ftruncate, "Cannot write " + path + ": No space left on device"},
        {Call::fsync, "Cannot sync " + path + ": No space left on device"},
        {Call::fstatvfs, "Cannot determine the free space for " + path + ": No space left on device"}};
    for (const auto& [call, expected] : failures) {
        const Calls full(call, ENOSPC);
        EXPECT_EQ(failure([&] {
                      zav::PartialFile file(path);
                      file.freeBytes();
                      file.append("new", 3);
                      file.restart();
                      file.commit();
                  }),
                  expected);
        EXPECT_EQ(contentOf(path), "content");
        const auto entries = std::filesystem::directory_iterator(folder.path());
        EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << "a partial file is left";
    }
}

TEST_F(FileFailureTest, FolderThatCannotBeSyncedIsReportedAfterTheReplacement) {
    zav::PartialFile file(path);
    file.append("new", 3);
    const Calls broken(Call::fsync, EIO, 1, 1);
    EXPECT_EQ(failure([&] { file.commit(); }), "Cannot sync the folder of " + path + ": Input/output error");
    EXPECT_EQ(contentOf(path), "new");
}

// A file of this machine in place of a server's answer.
class LocalAnswerFailure : public FileFailureTest {
 protected:
    int fetch(const std::string& answer) {
        zav::CurlSettings settings;
        settings.standIn = [&](const std::string&) { return zav::LocalAnswer{200, answer}; };
        const auto curl = std::make_shared<zav::Curl>(settings);
        return zav::FileDownloader(curl, security, properties).downloadFile("https://server.example/file.xml", target);
    }

    const std::string target = "/var/volatile/provisioning/failing/file.xml";
    std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>(
        fakes::FakeProperties::Values{{"NET.MAC.Address", "00:1A:2B:3C:4D:5E"}});
    zav::Security security{properties};
};

TEST_F(LocalAnswerFailure, InterruptedReadIsRepeated) {
    const Calls interrupted(Call::read, EINTR);
    EXPECT_EQ(fetch(path), ok);
    EXPECT_EQ(contentOf(target), "content");
}

TEST_F(LocalAnswerFailure, ReadThatFailsIsAFailedDownload) {
    std::filesystem::remove(target);
    {
        const Calls broken(Call::read, EIO);
        EXPECT_EQ(fetch(path), readError);
    }
    {
        const Calls broken(Call::fstat, EIO);
        EXPECT_EQ(fetch(path), readError);
    }
    {
        const Calls broken(Call::write, EIO);
        EXPECT_EQ(fetch(path), writeError);
    }
    EXPECT_EQ(fetch(folder.path()), readError);
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(LocalAnswerFailure, FileWithoutAnEndIsTooLarge) {
    std::filesystem::remove(target);
    EXPECT_EQ(fetch("/dev/zero"), tooLarge);
    EXPECT_FALSE(std::filesystem::exists(target));
}

}  // namespace
