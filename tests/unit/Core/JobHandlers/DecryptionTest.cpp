// How openssl is asked, and what becomes of its answer.
#include <cstdlib>
#include <filesystem>

#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

const std::string path = "/var/volatile/provisioning/file.xml";

class DecryptionTest : public tests::HandlerFixture {
 protected:
    void parse() {
        tests::writeFile(path, "anything");
        const zav::ProvisioningFileParser parser(path, reader_, phone_.properties);
    }
};

// Words as openssl gets them, one a line; what it says it has decrypted is `output`.
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

TEST_F(DecryptionTest, TheDecryptionCommandIsThisOne) {
    const RecordingOpenssl openssl("<provisioning/>", 0);
    parse();
    EXPECT_EQ(openssl.words(),
              "enc\n-aes-128-cbc\n-d\n-in\n" + path + "\n-out\n" + path + ".tmp\n-pass\nfile:/etc/zav.d/key\n")
        << "once, and nothing else";
    EXPECT_EQ(tests::contentOf(path), "<provisioning/>");
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

TEST_F(DecryptionTest, WhatAFailedDecryptionWroteIsRemoved) {
    const RecordingOpenssl openssl("half of it", 1);
    parse();
    EXPECT_NE(openssl.words(), "");
    EXPECT_EQ(tests::contentOf(path), "anything");
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

}  // namespace
