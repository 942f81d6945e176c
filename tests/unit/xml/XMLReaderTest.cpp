#include "xml/XMLReader.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "fakes/LogCapture.h"
#include "unit/Core/support/Phone.h"
#include "xml/XMLParser.h"

namespace {

using Attributes = std::map<std::string, std::string>;
using tests::writeFile;

const std::string path = "/tmp/document.xml";

class XMLReaderTest : public testing::Test {
 protected:
    XMLReaderTest() { std::filesystem::remove_all(path); }

    bool load(const std::string& document) {
        writeFile(path, document);
        return reader_.load(path);
    }

    void expectNothing() {
        EXPECT_EQ(reader_.name(), "");
        EXPECT_EQ(reader_.attributes(), Attributes());
        EXPECT_FALSE(reader_.hasChildren());
        EXPECT_FALSE(reader_.firstChild());
        EXPECT_FALSE(reader_.nextSibling());
    }

    fakes::LogCapture log_;
    zav::XMLParser reader_;
};

TEST_F(XMLReaderTest, EverythingIsEmptyWithoutADocument) {
    expectNothing();
    reader_.reset();
    reader_.restorePosition();
    expectNothing();
}

TEST_F(XMLReaderTest, CursorStartsAtTheRoot) {
    ASSERT_TRUE(load(R"(<?xml version="1.0"?><!-- a file --><root version="1.1" productID="kd4v"><child/></root>)"));
    EXPECT_EQ(reader_.name(), "root");
    EXPECT_EQ(reader_.attributes(), (Attributes{{"productID", "kd4v"}, {"version", "1.1"}}));
    EXPECT_TRUE(reader_.hasChildren());
    EXPECT_FALSE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "");
}

TEST_F(XMLReaderTest, TextAndCommentsAreSkipped) {
    ASSERT_TRUE(load("<root> text <!-- comment --> <a/> more <!-- and --> <b/> end </root>"));
    ASSERT_TRUE(reader_.firstChild());
    EXPECT_EQ(reader_.name(), "a");
    EXPECT_FALSE(reader_.hasChildren());
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "b");
    EXPECT_FALSE(reader_.nextSibling());
}

TEST_F(XMLReaderTest, CdataAndInstructionsAreNotSkipped) {
    ASSERT_TRUE(load("<root><![CDATA[data]]><?target data?><a/></root>"));
    ASSERT_TRUE(reader_.firstChild());
    EXPECT_EQ(reader_.name(), "") << "CDATA has no name";
    EXPECT_EQ(reader_.attributes(), Attributes());
    EXPECT_FALSE(reader_.hasChildren());
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "target");
    EXPECT_FALSE(reader_.hasChildren());
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "a");
}

TEST_F(XMLReaderTest, CdataSectionsInARowAreOneNode) {
    ASSERT_TRUE(load("<root><![CDATA[1]]> text <![CDATA[2]]><!-- comment --><![CDATA[3]]></root>"));
    ASSERT_TRUE(reader_.firstChild());
    ASSERT_TRUE(reader_.nextSibling()) << "a comment separates them";
    EXPECT_FALSE(reader_.nextSibling());
}

TEST_F(XMLReaderTest, ReferencesToUnknownEntitiesAreNodes) {
    ASSERT_TRUE(load("<!DOCTYPE root SYSTEM \"file\"><root a=\"&first;1\">&second;<a/></root>"));
    EXPECT_EQ(reader_.attributes(), (Attributes{{"a", "1"}}));
    ASSERT_TRUE(reader_.firstChild());
    EXPECT_EQ(reader_.name(), "second");
    EXPECT_FALSE(reader_.hasChildren());
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "a");
}

TEST_F(XMLReaderTest, UndeclaredPrefixesArePartOfTheName) {
    ASSERT_TRUE(load("<p:root xmlns:q=\"urn:q\" p:a=\"1\" q:a=\"2\" a=\"3\"><q:b/></p:root>"));
    EXPECT_EQ(reader_.name(), "p:root");
    EXPECT_EQ(reader_.attributes(), (Attributes{{"p:a", "1"}, {"a", "2"}})) << "the first of a repeated name counts";
    ASSERT_TRUE(reader_.firstChild());
    EXPECT_EQ(reader_.name(), "b");
}

TEST_F(XMLReaderTest, InstructionBehindTheRootIsItsSibling) {
    ASSERT_TRUE(load("<?before?><root/><!-- comment --><?after?>"));
    EXPECT_EQ(reader_.name(), "root");
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_EQ(reader_.name(), "after");
    EXPECT_FALSE(reader_.nextSibling());
}

TEST_F(XMLReaderTest, CommentsCountAsChildren) {
    ASSERT_TRUE(load("<root><!-- comment --></root>"));
    EXPECT_TRUE(reader_.hasChildren());
    EXPECT_FALSE(reader_.firstChild());
}

TEST_F(XMLReaderTest, WhiteSpaceCountsAsChildren) {
    ASSERT_TRUE(load("<root><a> </a><b></b><c/></root>"));
    ASSERT_TRUE(reader_.firstChild());
    EXPECT_TRUE(reader_.hasChildren());
    reader_.savePosition();
    EXPECT_FALSE(reader_.firstChild());
    reader_.restorePosition();
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_FALSE(reader_.hasChildren());
    ASSERT_TRUE(reader_.nextSibling());
    EXPECT_FALSE(reader_.hasChildren());
}

TEST_F(XMLReaderTest, RestoredPositionStaysSaved) {
    ASSERT_TRUE(load("<root><a><b/></a></root>"));
    reader_.savePosition();
    ASSERT_TRUE(reader_.firstChild());
    reader_.restorePosition();
    EXPECT_EQ(reader_.name(), "root");
    reader_.restorePosition();
    EXPECT_EQ(reader_.name(), "root");
    ASSERT_TRUE(reader_.firstChild());
    reader_.savePosition();
    ASSERT_TRUE(reader_.firstChild());
    reader_.restorePosition();
    EXPECT_EQ(reader_.name(), "a");
    reader_.restorePosition();
    EXPECT_EQ(reader_.name(), "a");
    reader_.reset();
    EXPECT_EQ(reader_.name(), "root");
    reader_.restorePosition();
    EXPECT_EQ(reader_.name(), "") << "the reset must clear saved positions";
}

TEST_F(XMLReaderTest, AttributeValuesArePlainText) {
    ASSERT_TRUE(load("<root a=\"&lt;&amp;&quot;&#65;\" b='x  y' c=\"\" d=\"\xc3\xa4\"/>"));
    EXPECT_EQ(reader_.attributes(), (Attributes{{"a", "<&\"A"}, {"b", "x  y"}, {"c", ""}, {"d", "\xc3\xa4"}}));
}

TEST_F(XMLReaderTest, NewDocumentReplacesTheOldOne) {
    ASSERT_TRUE(load("<first/>"));
    ASSERT_TRUE(load("<second/>"));
    EXPECT_EQ(reader_.name(), "second");
    EXPECT_FALSE(load("<third"));
    expectNothing();
    EXPECT_FALSE(reader_.load("/tmp/no such file"));
    expectNothing();
}

TEST_F(XMLReaderTest, ReleaseRemovesTheDocument) {
    ASSERT_TRUE(load("<root><a/></root>"));
    reader_.savePosition();
    reader_.release();
    expectNothing();
    reader_.restorePosition();
    expectNothing();
    EXPECT_TRUE(load("<root/>"));
}

TEST_F(XMLReaderTest, RefusesMalformedDocumentsSilently) {
    for (const char* document : {"", " ", "text", "<", "<a>", "<a></b>", "<a b=1/>", "<a b=\"1\" b=\"2\"/>", "<a/><b/>",
                                 "<a>&undefined;</a>", "<a>\x01</a>", "<a>\xff\xfe</a>", "Salted__12345678garbage",
                                 "<?xml version=\"1.0\" encoding=\"nonsense\"?><a/>", "<a b=\"&#0;\"/>"}) {
        EXPECT_FALSE(load(document)) << document;
        expectNothing();
    }
    EXPECT_FALSE(load(std::string("<a>\0</a>", 8)));
    EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(XMLReaderTest, DeclaredEntitiesAreRefused) {
    const std::string secret = "/tmp/secret.xml";
    writeFile(secret, "a secret");
    for (const std::string& declaration :
         {std::string(R"(<!ENTITY e "text">)"), std::string(R"(<!ENTITY % p "text">)"),
          std::string(R"(<!ENTITY e SYSTEM "/tmp/secret.xml">)"),
          std::string(R"(<!ENTITY e SYSTEM "file:///tmp/secret.xml">)"),
          std::string(R"(<!ENTITY e SYSTEM "http://127.0.0.1:1/">)"),
          std::string(R"(<!NOTATION n SYSTEM "n"><!ENTITY e SYSTEM "x" NDATA n>)"),
          std::string(R"(<!ENTITY a "0123456789"><!ENTITY b "&a;&a;&a;&a;&a;&a;">)")}) {
        EXPECT_FALSE(load("<!DOCTYPE root [" + declaration + "]><root a=\"1\"/>")) << declaration;
        EXPECT_FALSE(load("<!DOCTYPE root [" + declaration + "]><root>&e;</root>")) << declaration;
        expectNothing();
    }
    EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(XMLReaderTest, DeclaredAttributesAreRefused) {
    EXPECT_FALSE(load(R"(<!DOCTYPE root [<!ATTLIST root version CDATA "1.1">]><root/>)"));
    EXPECT_FALSE(load(R"(<!DOCTYPE root [<!ATTLIST root v (a|b) "a">]><root/>)"));
    expectNothing();
}

TEST_F(XMLReaderTest, DoesNotOpenAnExternalSubset) {
    writeFile("/tmp/outside.dtd", "<!ATTLIST root stolen CDATA \"yes\">");
    const int opened = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(opened, 0);
    ASSERT_GE(inotify_add_watch(opened, "/tmp/outside.dtd", IN_OPEN), 0);
    ASSERT_TRUE(load("<!DOCTYPE root SYSTEM \"/tmp/outside.dtd\"><root own=\"1\"/>"));
    EXPECT_EQ(reader_.attributes(), (Attributes{{"own", "1"}}));
    inotify_event event{};
    EXPECT_LT(read(opened, &event, sizeof event), 0) << "the file was opened";
    close(opened);
}

TEST_F(XMLReaderTest, ReadsOnlyRegularFiles) {
    writeFile("/tmp/target.xml", "<root/>");
    std::filesystem::create_symlink("/tmp/target.xml", path);
    EXPECT_FALSE(reader_.load(path)) << "a link";
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(reader_.load(path)) << "a folder";
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(reader_.load(path)) << "a FIFO without a writer";
    EXPECT_FALSE(reader_.load("/dev/zero"));
    EXPECT_FALSE(reader_.load("-"));
    EXPECT_FALSE(reader_.load(""));
    EXPECT_FALSE(reader_.load("http://127.0.0.1:1/document.xml"));
}

TEST_F(XMLReaderTest, DoesNotUnescapeFileNames) {
    writeFile("/tmp/a%20b.xml", "<raw/>");
    writeFile("/tmp/a b.xml", "<unescaped/>");
    ASSERT_TRUE(reader_.load("/tmp/a%20b.xml"));
    EXPECT_EQ(reader_.name(), "raw");
    std::filesystem::remove("/tmp/a%20b.xml");
    EXPECT_FALSE(reader_.load("/tmp/a%20b.xml"));
}

TEST_F(XMLReaderTest, DoesNotDecompress) {
    // <provisioning version="1.1"/>, compressed.
    const std::string gzip(
        "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xb3\x29\x28\xca\x2f\xcb\x2c\xce\xcc\xcf\xcb\xcc\x4b\x57\x28\x4b\x2d"
        "\x02\x31\x6d\x95\x0c\xf5\x0c\x95\xf4\xed\x00\xcf\xb7\xb2\xed\x1d\x00\x00\x00",
        46);
    const std::string xz(
        "\xfd\x37\x7a\x58\x5a\x00\x00\x04\xe6\xd6\xb4\x46\x02\x00\x21\x01\x16\x00\x00\x00\x74\x2f\xe5\xa3\x01\x00\x1c"
        "\x3c\x70\x72\x6f\x76\x69\x73\x69\x6f\x6e\x69\x6e\x67\x20\x76\x65\x72\x73\x69\x6f\x6e\x3d\x22\x31\x2e\x31\x22"
        "\x2f\x3e\x00\x00\x00\x00\x8d\x73\x4c\xbb\x91\xb7\x6d\xfd\x00\x01\x35\x1d\x44\x1b\xb1\xe1\x1f\xb6\xf3\x7d\x01"
        "\x00\x00\x00\x00\x04\x59\x5a",
        88);
    EXPECT_FALSE(load(gzip));
    EXPECT_FALSE(load(xz));
    ASSERT_TRUE(load("<provisioning version=\"1.1\"/>"));
}

TEST_F(XMLReaderTest, ReadsAtMostSixteenMebibytes) {
    const std::string head = "<root>";
    const std::string tail = "<a/></root>";
    const auto blanks = static_cast<std::size_t>(zav::XMLReader::maximumFileSize) - head.size() - tail.size();
    // Two text nodes, as libxml2 refuses a single one of more than 10 MB.
    const std::string padding = std::string(blanks / 2, ' ') + "<b/>" + std::string(blanks - blanks / 2 - 4, ' ');
    EXPECT_TRUE(load(head + padding + tail));
    EXPECT_FALSE(load(head + padding + " " + tail));
}

TEST_F(XMLReaderTest, LimitsNesting) {
    const auto nested = [](std::size_t depth) {
        std::string document;
        for (std::size_t i = 0; i < depth; ++i) document += "<a>";
        for (std::size_t i = 0; i < depth; ++i) document += "</a>";
        return document;
    };
    EXPECT_TRUE(load(nested(200)));
    EXPECT_FALSE(load(nested(100000)));
}

std::string withAttributes(std::size_t count) {
    std::string document = "<root><param";
    for (std::size_t i = 0; i < count; ++i) document += " a" + std::to_string(i) + "=\"1\"";
    return document + "/></root>";
}

TEST_F(XMLReaderTest, LimitsAttributesToSixtyFour) {
    EXPECT_TRUE(load(withAttributes(64)));
    EXPECT_FALSE(load(withAttributes(65)));
}

// libxml2 compares all pairs of attributes: without a limit this file would take hours.
TEST_F(XMLReaderTest, RefusesManyAttributesQuickly) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(load(withAttributes(1200000)));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST_F(XMLReaderTest, LimitsTheNumberOfNodes) {
    for (const std::string item : {"<a/>", "<!---->", "<?a?>"}) {
        const auto withItems = [&](int count) {
            std::string document = "<root>";
            for (int i = 0; i < count; ++i) document += item;
            return document + "</root>";
        };
        EXPECT_TRUE(load(withItems(250000))) << item;
        EXPECT_FALSE(load(withItems(1300000))) << item;
    }
}

TEST_F(XMLReaderTest, ManyShortValuesDoNotCountAsNames) {
    std::string document = "<root>";
    for (int i = 0; i < 40000; ++i) {
        document += "<param name=\"" + std::to_string(i) + "\" value=\"" + std::to_string(i % 1000) + "\"/>";
    }
    ASSERT_TRUE(load(document + "<last/></root>"));
    ASSERT_TRUE(reader_.firstChild());
    for (int i = 0; i < 40000; ++i) {
        ASSERT_EQ(reader_.attributes()["name"], std::to_string(i));
        ASSERT_TRUE(reader_.nextSibling());
    }
    EXPECT_EQ(reader_.name(), "last");
}

}  // namespace
