#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "DownloadFixture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

constexpr std::size_t mebibyte = 1024 * 1024;
const std::string certificate = "/custom/certs/_storage/limit.pem";
const std::string phoneBook = "/var/volatile/contacts/limit.xml";

class SizeLimit : public Fixture {
 protected:
    ~SizeLimit() override {
        std::filesystem::remove(certificate);
        std::filesystem::remove(phoneBook);
    }

    // Sends one byte and stalls: only the announced length can end the transfer.
    std::string announcing(std::uint64_t length) {
        HttpAnswer answer = HttpAnswer::ok("xx").stallingAfter(1, std::make_shared<fakes::Gate>());
        answer.declaredLength = length;
        server.on("/announced", answer);
        return server.url("/announced");
    }
};

TEST_F(SizeLimit, OfACertificateIsOneMebibyte) {
    server.on("/fits", HttpAnswer::ok(std::string(mebibyte, 'c')));
    server.on("/large", HttpAnswer::ok(std::string(mebibyte + 1, 'c')));
    EXPECT_EQ(fetch(server.url("/fits"), certificate), ok);
    EXPECT_EQ(std::filesystem::file_size(certificate), mebibyte);
    EXPECT_EQ(fetch(server.url("/large"), certificate), tooLarge);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(std::filesystem::file_size(certificate), mebibyte);
    EXPECT_EQ(fetch(announcing(mebibyte + 1), certificate), tooLarge);
}

TEST_F(SizeLimit, OfProvisioningFilesIsSixteenMebibytes) {
    server.on("/fits", HttpAnswer::ok(std::string(16 * mebibyte, 'p')));
    server.on("/large", withoutLength(std::string(16 * mebibyte + 1, 'p')));
    EXPECT_EQ(fetch("/fits"), ok);
    EXPECT_EQ(std::filesystem::file_size(target), 16 * mebibyte);
    EXPECT_EQ(fetch("/large"), tooLarge);
    EXPECT_EQ(fetch(announcing(16 * mebibyte + 1), target), tooLarge);
    EXPECT_EQ(std::filesystem::file_size(target), 16 * mebibyte);
}

TEST_F(SizeLimit, OfAnyOtherPlaceIsSixteenMebibytesToo) {
    EXPECT_EQ(fetch(announcing(16 * mebibyte + 1), "/tmp/limit.xml"), tooLarge);
}

TEST_F(SizeLimit, OfPhoneBooksIsSixtyFourMebibytes) {
    server.on("/fits", HttpAnswer::ok(std::string(17 * mebibyte, 'b')));
    EXPECT_EQ(fetch(server.url("/fits"), phoneBook), ok);
    EXPECT_EQ(std::filesystem::file_size(phoneBook), 17 * mebibyte);
    EXPECT_EQ(fetch(announcing(64 * mebibyte + 1), phoneBook), tooLarge);
}

TEST_F(SizeLimit, EndsAnEndlessBody) {
    HttpAnswer answer = HttpAnswer::ok(std::string(10000, 'e'));
    answer.endless = true;
    server.on("/endless", answer);
    EXPECT_EQ(fetch(server.url("/endless"), certificate), tooLarge);
    EXPECT_FALSE(std::filesystem::exists(certificate));
    EXPECT_EQ(fetch("/endless"), tooLarge);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(SizeLimit, OfFirmwareIsTheFreeSpaceLessAReserve) {
    const std::string staging = "/config/swupdate";
    std::filesystem::create_directories(staging);
    ASSERT_EQ(::mount("tmpfs", staging.c_str(), "tmpfs", 0, "size=20m"), 0) << std::strerror(errno);
    server.on("/fits", HttpAnswer::ok(std::string(3 * mebibyte, 'f')));
    server.on("/large", withoutLength(std::string(5 * mebibyte, 'f')));
    EXPECT_EQ(fetch(server.url("/fits"), staging + "/fits.bin"), ok);
    EXPECT_EQ(fetch(server.url("/large"), staging + "/large.bin"), tooLarge);
    EXPECT_EQ(fetch(announcing(5 * mebibyte), staging + "/announced.bin"), tooLarge);
    EXPECT_EQ(namesIn(staging), std::vector<std::string>{"fits.bin"});
    ::umount(staging.c_str());
}

TEST_F(SizeLimit, FullFileSystemIsAWriteError) {
    const std::string small = folder + "/small";
    std::filesystem::create_directories(small);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
    server.on("/large", HttpAnswer::ok(std::string(2 * mebibyte, 'f')));
    EXPECT_EQ(fetch(server.url("/large"), small + "/file"), writeError);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(namesIn(small).empty());
    ::umount(small.c_str());
}

}  // namespace
