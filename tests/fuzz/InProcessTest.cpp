// Decryption in this process gives the same bytes as openssl, and fails where openssl fails.
#include "fuzz/InProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "common/Execute.h"
#include "common/TemporaryFolder.h"

namespace {

constexpr std::chrono::seconds timeout{20};

class InProcessTest : public testing::Test {
 protected:
    std::string path(const std::string& name) const { return folder_.path() + "/" + name; }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary | std::ios::trunc) << content;
    }
    std::string read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    /// The content, encrypted with the phrase as a provisioning file is.
    std::string encrypted(const std::string& content, const std::string& keyFile,
                          const std::string& options = "-aes-128-cbc") const {
        write("key", keyFile);
        write("plain", content);
        os::execute("openssl enc " + options + " -in " + path("plain") + " -out " + path("encrypted") +
                        " -pass file:" + path("key"),
                    timeout);
        return read("encrypted");
    }
    /// What the command writes, or nothing if it fails.
    std::optional<std::string> decryptedBy(const std::function<void(const std::string&)>& execute,
                                           const std::string& content, const std::string& keyFile,
                                           const std::string& options) const {
        write("key", keyFile);
        write("in", content);
        try {
            execute("openssl enc " + options + " -d -in " + path("in") + " -out " + path("out") +
                    " -pass file:" + path("key"));
        } catch (const os::ExecuteException&) {
            return std::nullopt;
        }
        return read("out");
    }
    void expectSame(const std::string& content, const std::string& keyFile, bool succeeds,
                    const std::string& options = "-aes-128-cbc") const {
        const auto real =
            decryptedBy([](const std::string& command) { os::execute(command, timeout); }, content, keyFile, options);
        const auto here =
            decryptedBy([](const std::string& command) { fuzz::executeInProcess(command); }, content, keyFile, options);
        EXPECT_EQ(real, here);
        EXPECT_EQ(real.has_value(), succeeds);
    }

 private:
    const common::TemporaryFolder folder_{"zav-fuzz"};
};

TEST_F(InProcessTest, DecryptsAsOpensslDoes) {
    const std::string binary("\0\xFF <provisioning/>\n\0", 20);
    for (const std::string& content :
         {std::string("<provisioning/>"), std::string(), std::string(16, 'x'), binary, std::string(100000, 'y')}) {
        expectSame(encrypted(content, "phrase"), "phrase", true);
    }
}

TEST_F(InProcessTest, TakesCiphersAndDigests) {
    for (const char* options :
         {"-aes-128-cbc -pbkdf2", "-aes-128-cbc -md md5", "-aes-256-cbc", "-aes-256-cbc -pbkdf2",
          "-aes-256-cbc -md md5", "-aes-192-cbc", "-aes-128-cbc -md sha1", "-aes-128-cbc -md sha512"}) {
        expectSame(encrypted("<provisioning/>", "phrase", options), "phrase", true, options);
    }
}

TEST_F(InProcessTest, ReadsThePassPhraseAsOpensslDoes) {
    const std::string content = "<provisioning/>";
    for (const std::string& key :
         {std::string("\n"), std::string("phrase\nnot this"), std::string("phrase\r\n"), std::string("ph\0rase", 7),
          std::string(1023, 'k'), std::string(1024, 'k'), std::string(3000, 'k')}) {
        expectSame(encrypted(content, key), key, true);
    }
}

TEST_F(InProcessTest, FailsAsOpensslDoes) {
    // Always the same one: with a wrong pass phrase, one file in 256 ends as if it were whole.
    const std::string file(
        "Salted__"
        "\xee\x33\x3c\x09\x5f\x98\x2e\x43\x11\x99\x03\xd2\x19\x7e\x2b\x19"
        "\x06\x4d\x4a\x64\x22\xcc\xb2\x69\x47\xd6\x8d\xd6\x28\x8d\xda\xa0"
        "\xb7\x3c\x6c\xad\xa1\x86\xe4\xf9\x32\x45\xaf\xc5\x35\xc4\xaa\xb4"
        "\x2c\x38\x6b\x4e\x89\x60\x32\xfd",
        64);
    expectSame(file, "phrase", true);
    for (const std::string& content :
         {std::string(), std::string("<provisioning/>"), std::string("Salted__"), std::string("Salted__1234"),
          file.substr(0, 16), file.substr(0, 20), file.substr(0, file.size() - 1), file.substr(0, 32), file + "x"}) {
        expectSame(content, "phrase", false);
    }
    expectSame(file, "another phrase", false);
    expectSame(file, "", false);
    expectSame(file, std::string(1, '\0') + "phrase", false);
}

TEST_F(InProcessTest, FailsWithoutFiles) {
    const std::string end = " -out " + path("out") + " -pass file:" + path("key");
    EXPECT_THROW(fuzz::executeInProcess("openssl enc -aes-128-cbc -d -in " + path("missing") + end),
                 os::ExecuteException);
    write("in", encrypted("x", "phrase"));
    EXPECT_THROW(fuzz::executeInProcess("openssl enc -aes-128-cbc -d -in " + path("in") + " -out " + path("out") +
                                        " -pass file:" + path("missing")),
                 os::ExecuteException);
}

}  // namespace
