#include "http/PartialDownloads.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "DownloadFixture.h"
#include "fakes/LogCapture.h"

namespace {

using namespace download;

const std::string provisioning = "/var/volatile/provisioning/";
const std::string firmware = "/config/swupdate/";
const std::string certificates = "/custom/certs/_storage/";
const std::string contacts = "/var/volatile/contacts/";
const std::string source = "platform/http/src/PartialDownloads";

bool exists(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

class PartialDownloads : public testing::Test {
 protected:
    PartialDownloads() { empty(); }
    ~PartialDownloads() override { empty(); }

    static void empty() {
        for (const std::string& folder : {provisioning, firmware, certificates, contacts, std::string("/tmp/away/")}) {
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder);
        }
    }
};

TEST_F(PartialDownloads, AreRemovedFromEveryFolderAndLogged) {
    const std::vector<std::string> left{provisioning + ".a.xml.part",           provisioning + "server/.b.xml.part",
                                        provisioning + "server/deeper/.c.part", firmware + ".image.bin.part",
                                        certificates + ".ca.pem.part",          contacts + ".book.xml.part"};
    for (const std::string& path : left) writeFile(path, "half a fi");
    const fakes::LogCapture log;
    zav::removePartialDownloads();
    for (const std::string& path : left) {
        EXPECT_FALSE(exists(path)) << path;
        EXPECT_EQ(log.count(fakes::info(source, "Removed the half-downloaded file " + path)), 1U) << log.text();
    }
    EXPECT_EQ(log.lines().size(), left.size());
}

TEST_F(PartialDownloads, OtherFilesAreNotRemoved) {
    const std::vector<std::string> others{provisioning + "a.xml",  provisioning + "a.part",      provisioning + ".part",
                                          provisioning + ".a.xml", provisioning + ".a.part~",    "/tmp/away/.a.part",
                                          "/config/.a.part",       firmware + "unpacked/.a.part"};
    for (const std::string& path : others) writeFile(path, "whole");
    std::filesystem::create_directories(provisioning + ".folder.part/x");
    ASSERT_EQ(::mkfifo((provisioning + ".pipe.part").c_str(), 0600), 0);
    const fakes::LogCapture log;
    zav::removePartialDownloads();
    for (const std::string& path : others) EXPECT_TRUE(exists(path)) << path;
    EXPECT_TRUE(exists(provisioning + ".folder.part/x"));
    EXPECT_TRUE(exists(provisioning + ".pipe.part"));
    EXPECT_TRUE(log.lines().empty()) << log.text();
    std::filesystem::remove("/config/.a.part");
}

TEST_F(PartialDownloads, LinksAreNotFollowed) {
    writeFile("/tmp/away/.a.part", "elsewhere");
    std::filesystem::create_symlink("/tmp/away", provisioning + "server");
    std::filesystem::create_symlink("/tmp/away/.a.part", provisioning + ".b.part");
    std::filesystem::remove(contacts);
    std::filesystem::create_symlink("/tmp/away", contacts.substr(0, contacts.size() - 1));
    zav::removePartialDownloads();
    EXPECT_TRUE(exists("/tmp/away/.a.part"));
    EXPECT_TRUE(exists(provisioning + ".b.part"));
    std::filesystem::remove(contacts.substr(0, contacts.size() - 1));
}

TEST_F(PartialDownloads, MissingFoldersAreNotLogged) {
    for (const std::string& folder : {provisioning, firmware, certificates, contacts}) {
        std::filesystem::remove_all(folder);
    }
    const fakes::LogCapture log;
    zav::removePartialDownloads();
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(PartialDownloads, ThatCannotBeRemovedAreLogged) {
    writeFile(firmware + ".a.part", "half");
    ASSERT_EQ(::mount("/config", "/config", nullptr, MS_BIND | MS_REC, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, "/config", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    const fakes::LogCapture log;
    zav::removePartialDownloads();
    ::umount("/config");
    EXPECT_TRUE(log.has(fakes::warning(
        source, "Cannot remove the half-downloaded file " + firmware + ".a.part: Read-only file system")))
        << log.text();
}

TEST_F(PartialDownloads, OfAKilledProcessAreRemoved) {
    // Checks that downloads use the name that removePartialDownloads looks for.
    fakes::HttpServer server;
    const auto gate = std::make_shared<fakes::Gate>();
    server.on("/a", fakes::HttpAnswer::ok("content").stallingAfter(3, gate));
    const std::string url = server.url("/a");
    const pid_t child = ::fork();
    if (child == 0) {
        const auto properties = std::make_shared<fakes::FakeProperties>();
        zav::Security security(properties);
        zav::FileDownloader(std::make_shared<zav::Curl>(), security, properties)
            .downloadFile(url, provisioning + "x/a.xml");
        ::_exit(0);
    }
    ASSERT_TRUE(gate->waitUntilReached());
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(namesIn(provisioning + "x").size(), 1U);
    zav::removePartialDownloads();
    EXPECT_TRUE(namesIn(provisioning + "x").empty());
}

}  // namespace
