#include "http/UrlInfo.h"

#include <gtest/gtest.h>

#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "common/UrlSyntax.h"
#include "data/UrlVectors.h"

namespace {

using zav::UrlInfo;

class Url : public testing::TestWithParam<data::UrlVector> {};

TEST_P(Url, IsSplitOrRefused) {
    const data::UrlVector& row = GetParam();
    if (!row.ok) {
        EXPECT_THROW(UrlInfo{row.url}, zav::UrlException);
        return;
    }
    const UrlInfo url(row.url);
    EXPECT_EQ(url.scheme(), row.scheme);
    EXPECT_EQ(url.host(), row.host);
    EXPECT_EQ(std::to_string(url.port()), row.port);
    EXPECT_EQ(url.path(), row.path);
    EXPECT_EQ(url.fileName(), row.file);
    EXPECT_EQ(url.query(), row.query);
    EXPECT_EQ(url.userInfo(), row.userInfo);
    const std::string host = row.host.find(':') == std::string::npos ? row.host : "[" + row.host + "]";
    EXPECT_EQ(url.origin(), row.scheme + "://" + host + (row.port == "0" ? "" : ":" + row.port));
    EXPECT_EQ(url.text(), url.origin() + row.path + row.file + (row.query.empty() ? "" : "?" + row.query));
}

INSTANTIATE_TEST_SUITE_P(Vectors, Url, testing::ValuesIn(data::urlVectors(URL_VECTORS)));

TEST(RefusedUrl, EmptyOrTooLong) {
    for (const std::string& text : {std::string(), std::string(2049, 'a'), "h/" + std::string(2047, 'a')}) {
        EXPECT_THROW(UrlInfo{text}, zav::UrlException);
    }
}

// A random text of pieces that matter to a URL parser.
std::string randomText(std::mt19937& random) {
    static const std::vector<std::string> pieces{"http",     "https",
                                                 "ftp",      "://",
                                                 ":",        "/",
                                                 "//",       "@",
                                                 "?",        "#",
                                                 "[",        "]",
                                                 "[::1]",    "::",
                                                 "host",     "HOST",
                                                 ".",        "..",
                                                 "%2e",      "%",
                                                 "%41",      "%25",
                                                 "%MACC",    "eth0",
                                                 "80",       "0",
                                                 "65536",    "00080",
                                                 "user",     "p:w",
                                                 "a",        "b.c",
                                                 "1",        "127",
                                                 "0x7f",     "1.2",
                                                 "-",        "_",
                                                 "~",        "\\",
                                                 "|",        "\"",
                                                 "\xc3\xa4", "\xff",
                                                 " ",        "\t",
                                                 "\x7f",     "&",
                                                 "=",        ";",
                                                 "$",        "'",
                                                 "(",        ")",
                                                 "*",        "+",
                                                 ",",        "!",
                                                 "<",        ">",
                                                 "^",        "`",
                                                 "{",        "}",
                                                 "xn--a",    std::string(1, '\0'),
                                                 "256",      "[fe80::1%25eth0]"};
    std::string text;
    if (random() % 2 == 0) text = "http://";
    if (random() % 2 == 0) text += "host";
    for (auto count = random() % 8; count > 0; --count) text += pieces[random() % pieces.size()];
    return text;
}

TEST(UrlInfo, SurvivesARoundTrip) {
    std::mt19937 random(20261122);
    int accepted = 0;
    for (int run = 0; run < 200000; ++run) {
        const std::string text = randomText(random);
        try {
            const UrlInfo url(text);
            const UrlInfo again(url.text());
            ++accepted;
            ASSERT_EQ(again.scheme(), url.scheme()) << text;
            ASSERT_EQ(again.host(), url.host()) << text;
            ASSERT_EQ(again.port(), url.port()) << text;
            ASSERT_EQ(again.path(), url.path()) << text;
            ASSERT_EQ(again.fileName(), url.fileName()) << text;
            ASSERT_EQ(again.query(), url.query()) << text;
            ASSERT_EQ(again.text(), url.text()) << text;
            ASSERT_EQ(again.userInfo(), "") << text;
            ASSERT_FALSE(url.host().empty()) << text;
        } catch (const zav::UrlException&) {
            ASSERT_FALSE(common::parseUrl(text)) << "parseUrl accepts " << testing::PrintToString(text);
        }
    }
    EXPECT_GT(accepted, 20000);
}

TEST(UrlInfo, AcceptsUpTo2048Bytes) {
    EXPECT_EQ(UrlInfo("h/" + std::string(2046, 'a')).fileName(), std::string(2046, 'a'));
}

TEST(UrlInfo, HasOneErrorTextForAllInvalidUrls) {
    try {
        const UrlInfo url("");
        FAIL() << url.text();
    } catch (const zav::UrlException& exception) {
        EXPECT_STREQ(exception.what(), "Url is incorrect, please verify");
    }
}

TEST(UrlInfo, FileNameCanBeReplaced) {
    UrlInfo url("http://u:p@host/dir/?x=1");
    url.setFileName("provisioning.xml");
    EXPECT_EQ(url.text(), "http://host/dir/provisioning.xml?x=1");
    EXPECT_EQ(url.localName(), "provisioning.xml");
}

struct NameRow {
    std::string name, local;
};

void PrintTo(const NameRow& row, std::ostream* stream) { *stream << testing::PrintToString(row.name); }

class LocalFileName : public testing::TestWithParam<NameRow> {};

TEST_P(LocalFileName, HasOnlySafeCharacters) { EXPECT_EQ(zav::localFileName(GetParam().name), GetParam().local); }

INSTANTIATE_TEST_SUITE_P(UrlInfo, LocalFileName,
                         testing::Values(NameRow{"", ""}, NameRow{"file.xml", "file.xml"},
                                         NameRow{"aZ09._%+=,@~-", "aZ09._%+=,@~-"},
                                         NameRow{"a;touch PWNED;.xml", "a_touch_PWNED_.xml"}, NameRow{"$(id)", "__id_"},
                                         NameRow{"`id`", "_id_"}, NameRow{".", "_"}, NameRow{"..", "__"},
                                         NameRow{"...", "..."}, NameRow{"-rf", "_rf"}, NameRow{"--", "_-"},
                                         NameRow{"a\nb\r", "a_b_"}, NameRow{"a/b\\c", "a_b_c"},
                                         NameRow{"..%2f..%2fetc", "..%2f..%2fetc"}, NameRow{"%2e%2e", "%2e%2e"},
                                         NameRow{"'\"|&<>*?![]{}#", "______________"}, NameRow{"\xc3\xa4", "__"},
                                         NameRow{std::string("a\0b", 3), "a_b"}, NameRow{"%MACD.xml", "%MACD.xml"},
                                         NameRow{std::string(200, 'a'), std::string(200, 'a')},
                                         NameRow{std::string(300, 'a'), std::string(200, 'a')}));

}  // namespace
