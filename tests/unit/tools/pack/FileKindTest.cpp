#include "pack/FileKind.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pack {
namespace {

using testing::HasSubstr;

std::string utf16(const std::string& text, bool little) {
    std::string bytes = little ? "\xff\xfe" : "\xfe\xff";
    for (const char c : text) bytes += little ? std::string{c, '\0'} : std::string{'\0', c};
    return bytes;
}

TEST(FileKind, ARootThatThePhoneVerifiesMakesAProvisioningFile) {
    for (const std::string root : {"provisioning", "firmware", "nvm", "settings", "custom", "scenario"}) {
        for (const std::string& text : {"<" + root + "/>", "<" + root + ">", "<" + root + " version=\"1.1\">",
                                        "<p:" + root + "/>", "<" + root + "\n/>"}) {
            const Classification found = classify("any name", text);
            EXPECT_EQ(found.kind, FileKind::provisioning) << text;
            EXPECT_EQ(found.root, root) << text;
            EXPECT_EQ(found.problem, "") << text;
        }
    }
}

TEST(FileKind, WhatPrecedesTheRootIsSkipped) {
    for (const std::string before :
         {"\xef\xbb\xbf", " \r\n\t", "<?xml version=\"1.0\"?>\n", "<!-- <nothing> -->", "<!DOCTYPE a>",
          "<!DOCTYPE a [<!ELEMENT a (b)> <!-- ] ' --> <?x ] \" ?> ]>", "<!DOCTYPE a SYSTEM \"b>c\">",
          "<!DOCTYPE a SYSTEM 'b>c'>", "<?a?><!--b--><?c d?>"}) {
        EXPECT_EQ(classify("a.xml", before + "<nvm/>").kind, FileKind::provisioning) << before;
    }
    for (const bool little : {true, false}) {
        EXPECT_EQ(classify("a.xml", utf16("<?xml version='1.0'?><nvm/>", little)).kind, FileKind::provisioning);
        EXPECT_EQ(classify("a.xml", utf16("<nvm/>", little).substr(2)).kind, FileKind::provisioning);
    }
}

TEST(FileKind, OtherFilesAreNotProvisioningFiles) {
    EXPECT_EQ(classify("a.xml", "Salted__12345678").kind, FileKind::encrypted);
    for (const std::string text : {"<contacts/>", "<settingsBackup/>", "-----BEGIN CERTIFICATE-----", "", "\177ELF"}) {
        const Classification found = classify("a.bin", text);
        EXPECT_EQ(found.kind, FileKind::other) << text;
        EXPECT_EQ(found.problem, "") << text;
    }
    EXPECT_EQ(classify("contacts.xml", "<contacts/>").problem, "");
}

TEST(FileKind, AFileThatSeemsMeantToBeOneIsAProblem) {
    EXPECT_THAT(classify("a.xml", "<Provisioning/>").problem, HasSubstr("the phone wants \"provisioning\""));
    EXPECT_THAT(classify("a.txt", "<provisionning productID='kd4v'/>").problem, HasSubstr("\"provisionning\""));
    EXPECT_THAT(classify("x/provisioning.xml", "<contacts/>").problem, HasSubstr("\"contacts\""));
    EXPECT_THAT(classify("provisioning.xml", "<a\xe0\x97\xb1/>").problem, HasSubstr("\"a\\xe0"));
    EXPECT_THAT(classify("a.xml", "").problem, HasSubstr("empty"));
    for (const std::string text :
         {"not XML", "<!-- never ends", "<?xml", "\x1f\x8b", "\xef\xbb\xbf", "<!DOCTYPE nvm [", "< nvm/>"}) {
        EXPECT_THAT(classify("A.XML", text).problem, HasSubstr("not an XML document")) << text;
    }
}

TEST(FileKind, WhatAWrongKeyMakesOfAFileIsNotReadable) {
    for (const std::string& text : {std::string(), std::string("<nvm/>"), std::string("<nvm>\xe9</nvm>"),
                                    utf16("<nvm/>", true), std::string("not XML, but text\r\n\t\xc3\xa9")}) {
        EXPECT_TRUE(isReadable(text)) << text;
    }
    for (const std::string& bytes : {std::string("<\x01"), std::string("<a\0b>", 5), std::string("<a\xe9>")}) {
        EXPECT_FALSE(isReadable(bytes)) << bytes;
    }
}

}  // namespace
}  // namespace pack
