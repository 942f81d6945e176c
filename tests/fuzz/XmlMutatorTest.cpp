#include "fuzz/XmlMutator.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "fuzz/InputFile.h"
#include "xml/XMLReader.h"

namespace fuzz {
namespace {

constexpr std::size_t large = 1000000;
const char document[] =
    "<?xml version=\"1.0\"?>\n<provisioning version=\"1.1\" productID='kd4v'>\n <!-- a <comment> -->"
    "<nvm><param name=\"a\" value=\"&amp;\"/><param name=\"b\" value=\"\"/></nvm><![CDATA[<x>]]></provisioning>\n";

TEST(XmlMutatorTest, ResultsAreDifferentDocuments) {
    std::set<std::string> results;
    int wellFormed = 0;
    constexpr unsigned runs = 400;
    for (unsigned seed = 0; seed < runs; ++seed) {
        const std::string changed = mutateXml(document, seed, large);
        ASSERT_NE(changed, "");
        results.insert(changed);
        zav::XMLReader reader;
        wellFormed += reader.load(inputFile(changed)) ? 1 : 0;
    }
    EXPECT_GT(results.size(), runs / 2);
    EXPECT_GT(wellFormed, static_cast<int>(runs * 3 / 4));  // a prefix without its namespace, a repeated attribute
}

TEST(XmlMutatorTest, DependsOnTheSeedOnly) { EXPECT_EQ(mutateXml(document, 7, large), mutateXml(document, 7, large)); }

TEST(XmlMutatorTest, LeavesOtherTextsToOtherMutations) {
    for (const char* text :
         {"", "x", "<", "<a", "<a>", "<a></b>", "<a b>", "<a b=\"c></a>", "<a><b></b", "<a/>x", "<!DOCTYPE a><a/>"}) {
        EXPECT_EQ(mutateXml(text, 1, large), "") << text;
    }
}

TEST(XmlMutatorTest, KeepsToTheMaximumSize) {
    for (unsigned seed = 0; seed < 50; ++seed) EXPECT_LE(mutateXml(document, seed, 200).size(), 200U);
}

}  // namespace
}  // namespace fuzz
