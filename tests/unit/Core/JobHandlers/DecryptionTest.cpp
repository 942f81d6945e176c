// The call of openssl, and the handling of its output and errors.
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>

#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::warning;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/JobHandlers/ProvisioningFileParser";
const std::string path = "/var/volatile/provisioning/file.xml";

class DecryptionTest : public tests::HandlerFixture {
 protected:
    void parse() {
        tests::writeFile(path, "anything");
        const zav::ProvisioningFileParser parser(path, reader_, phone_.properties);
    }
    void loadCorruptedFile() {
        tests::writeFile(path, "neither encrypted nor XML");
        zav::ProvisioningFileParser parser(path, reader_, phone_.properties);
        EXPECT_FALSE(parser.loadAndVerify());
    }
};

// Sets a PATH without programs.
class EmptyPath {
 public:
    EmptyPath() { setenv("PATH", "/nowhere", 1); }
    ~EmptyPath() { setenv("PATH", path_.c_str(), 1); }
    EmptyPath(const EmptyPath&) = delete;
    EmptyPath& operator=(const EmptyPath&) = delete;

 private:
    const std::string path_ = getenv("PATH");
};

// Replaces openssl by a script that records its arguments, one per line, and writes `output` as the decrypted file.
class RecordingOpenssl {
 public:
    RecordingOpenssl(const std::string& output, int status) {
        std::filesystem::create_directories("/tmp/programs");
        tests::writeFile("/tmp/programs/openssl", "#!/bin/sh\nprintf '%s\\n' \"$@\" >>" + words_ + "\nprintf '" +
                                                      output + "' >\"$7\"\nexit " + std::to_string(status) + "\n");
        std::filesystem::permissions("/tmp/programs/openssl", std::filesystem::perms::owner_all);
        std::filesystem::remove(words_);
        setenv("PATH", ("/tmp/programs:" + path_).c_str(), 1);
    }
    ~RecordingOpenssl() { setenv("PATH", path_.c_str(), 1); }
    RecordingOpenssl(const RecordingOpenssl&) = delete;
    RecordingOpenssl& operator=(const RecordingOpenssl&) = delete;
    std::string words() const { return tests::contentOf(words_); }

 private:
    const std::string words_ = "/tmp/programs/words";
    const std::string path_ = getenv("PATH");
};

TEST_F(DecryptionTest, DecryptionCommand) {
    const RecordingOpenssl openssl("<provisioning/>", 0);
    parse();
    EXPECT_EQ(openssl.words(),
              "enc\n-aes-128-cbc\n-d\n-in\n" + path + "\n-out\n" + path + ".tmp\n-pass\nfile:/etc/zav.d/key\n")
        << "openssl must be called once with exactly these arguments";
    EXPECT_EQ(tests::contentOf(path), "<provisioning/>");
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

TEST_F(DecryptionTest, RemovesTheOutputOfAFailedDecryption) {
    const RecordingOpenssl openssl("half of it", 1);
    parse();
    EXPECT_NE(openssl.words(), "");
    EXPECT_EQ(tests::contentOf(path), "anything");
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

TEST_F(DecryptionTest, DoesNotFollowALinkAtTheTemporaryName) {
    tests::writeFile("/tmp/target", "untouched");
    std::filesystem::remove(path + ".tmp");
    std::filesystem::create_symlink("/tmp/target", path + ".tmp");
    tests::writeFile(path, tests::encrypted("<provisioning/>"));
    const zav::ProvisioningFileParser parser(path, reader_, phone_.properties);
    EXPECT_EQ(tests::contentOf("/tmp/target"), "untouched");
    EXPECT_EQ(tests::contentOf(path), "<provisioning/>");
}

TEST_F(DecryptionTest, UnreadableKeyIsLoggedOncePerPass) {
    std::filesystem::remove("/etc/zav.d/key");
    for (int file = 0; file < 2; ++file) loadCorruptedFile();
    EXPECT_EQ(phone_.log.lines(),
              (Lines{warning(source, "File " + path + " is corrupted"),
                     warning(source,
                             "If the file is encrypted, it could not be decrypted: Cannot read the key file "
                             "/etc/zav.d/key: No such file or directory"),
                     warning(source, "File " + path + " is corrupted")}));
    zav::Pass next(nullptr, stop_);
    loadCorruptedFile();
    EXPECT_EQ(phone_.log.lines().size(), 5U) << "the next pass must log it again";
}

TEST_F(DecryptionTest, MissingOpensslIsLogged) {
    const EmptyPath none;
    loadCorruptedFile();
    ASSERT_EQ(phone_.log.lines().size(), 2U);
    EXPECT_THAT(phone_.log.lines().back().text,
                testing::AllOf(testing::HasSubstr("it could not be decrypted: Command 'openssl enc"),
                               testing::HasSubstr("openssl: not found")));
}

TEST_F(DecryptionTest, PlainFileNeedsNeitherKeyNorOpenssl) {
    std::filesystem::remove("/etc/zav.d/key");
    const EmptyPath none;
    tests::writeFile(path, tests::provisioningFile("provisioning", "1.0", ""));
    zav::ProvisioningFileParser parser(path, reader_, phone_.properties);
    EXPECT_TRUE(parser.loadAndVerify());
    EXPECT_TRUE(phone_.log.linesOf(source).size() == 3U) << "verifiable, no MAC address, verified";
}

TEST_F(DecryptionTest, EmptyKeyFileIsReadable) {
    tests::writeFile("/etc/zav.d/key", "");
    loadCorruptedFile();
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "File " + path + " is corrupted")});
}

TEST_F(DecryptionTest, CorruptedFileLogsNoKeyError) {
    loadCorruptedFile();
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "File " + path + " is corrupted")});
}

}  // namespace
