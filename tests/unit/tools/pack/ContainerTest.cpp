#include "pack/Container.h"

#include <gmock/gmock.h>

#include <chrono>

#include "Workspace.h"
#include "common/Execute.h"
#include "pack/Key.h"

namespace pack {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Container : public Workspace {
 protected:
    // The phone's own command.
    bool phoneDecrypts() const {
        try {
            os::execute("cd " + root + " && openssl enc -aes-128-cbc -d -in file -out out -pass file:key",
                        std::chrono::seconds(20));
            return true;
        } catch (const os::ExecuteException&) {
            return false;
        }
    }
};

TEST_F(Container, ThePhonesCommandDecryptsWhatIsEncrypted) {
    for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 4096U, 100000U}) {
        const std::string plain(size, 'x');
        const std::string encrypted = encrypt(plain, passPhrase);
        EXPECT_EQ(encrypted.size(), encryptedSize(size));
        write("file", encrypted);
        ASSERT_TRUE(phoneDecrypts()) << size;
        EXPECT_EQ(read("out"), plain);
        EXPECT_EQ(decrypt(encrypted, passPhrase), plain);
    }
}

TEST_F(Container, DecryptsWhatOpensslEncrypts) {
    write("plain", plainXml);
    os::execute("cd " + root + " && openssl enc -aes-128-cbc -salt -in plain -out file -pass file:key",
                std::chrono::seconds(20));
    EXPECT_EQ(decrypt(read("file"), passPhrase), plainXml);
}

TEST_F(Container, EachEncryptionHasASaltOfItsOwn) {
    EXPECT_NE(encrypt(plainXml, passPhrase), encrypt(plainXml, passPhrase));
}

TEST_F(Container, DamagedOrForeignBytesAreNotDecrypted) {
    const std::string encrypted = encrypt(plainXml, passPhrase);
    EXPECT_FALSE(decrypt(plainXml, passPhrase));
    EXPECT_FALSE(decrypt("", passPhrase));
    EXPECT_FALSE(decrypt("Salted__", passPhrase));
    EXPECT_FALSE(decrypt(encrypted.substr(0, 16), passPhrase));
    EXPECT_FALSE(decrypt(encrypted.substr(0, encrypted.size() - 1), passPhrase));
    int noticed = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (!decrypt(encrypted, "wrong" + std::to_string(attempt))) ++noticed;
    }
    EXPECT_GT(noticed, 90);  // 1 of 256 wrong keys ends in valid padding
}

// What is no pass phrase for openssl, or hardly the one that was meant.
struct KeyRow {
    const char* name;
    std::string content;
    std::string passPhrase;  // "" if the file is refused
    std::string text;        // of the error or the warning
};

class KeyFile : public Container, public testing::WithParamInterface<KeyRow> {};

TEST_P(KeyFile, IsReadAsThePhoneReadsIt) {
    const KeyRow& row = GetParam();
    write("key", row.content);
    if (row.passPhrase.empty()) {
        EXPECT_THAT(errorOf([this] { readKey(root + "/key"); }),
                    AllOf(HasSubstr(root + "/key: "), HasSubstr(row.text)));
        return;
    }
    const Key key = readKey(root + "/key");
    EXPECT_EQ(key.passPhrase, row.passPhrase);
    if (row.text.empty()) {
        EXPECT_THAT(key.warnings, IsEmpty());
    } else {
        EXPECT_THAT(key.warnings, ElementsAre(HasSubstr(row.text)));
    }
    write("file", encrypt(plainXml, key.passPhrase));
    ASSERT_TRUE(phoneDecrypts());
    EXPECT_EQ(read("out"), plainXml);
}

INSTANTIATE_TEST_SUITE_P(Keys, KeyFile,
                         testing::Values(KeyRow{"OneLine", "abc\n", "abc", ""}, KeyRow{"NoLineEnd", "abc", "abc", ""},
                                         KeyRow{"CarriageReturn", "abc\r\n", "abc\r", "carriage return"},
                                         KeyRow{"Blank", "abc \n", "abc ", "ends with a blank"},
                                         KeyRow{"Tab", "abc\t\n", "abc\t", "ends with a blank"},
                                         KeyRow{"SecondLine", "abc\ndef\n", "abc", "only the first line"},
                                         KeyRow{"ByteOrderMark",
                                                "\xef\xbb\xbf"
                                                "abc\n",
                                                "\xef\xbb\xbf"
                                                "abc",
                                                "byte order mark"},
                                         KeyRow{"Longest", std::string(1023, 'k') + "\n", std::string(1023, 'k'), ""},
                                         KeyRow{"TooLong", std::string(1024, 'k') + "\n", "", "more than 1023 bytes"},
                                         KeyRow{"Empty", "", "", "the key file is empty"},
                                         KeyRow{"BlankFirstLine", "\nabc\n", "", "the first line is empty"},
                                         KeyRow{"BlankFirstLineWithCarriageReturn", "\r\nabc\r\n", "",
                                                "the first line is empty"},
                                         KeyRow{"Nul", std::string("a\0b\n", 4), "", "NUL"}),
                         [](const testing::TestParamInfo<KeyRow>& row) { return row.param.name; });

TEST_F(Container, AKeyThatCannotBeReadIsAnError) {
    EXPECT_THAT(errorOf([this] { readKey(root + "/none"); }), HasSubstr(root + "/none: cannot be opened"));
    EXPECT_THAT(errorOf([this] { readKey(root); }), HasSubstr(root + ": is a folder"));
}

}  // namespace
}  // namespace pack
