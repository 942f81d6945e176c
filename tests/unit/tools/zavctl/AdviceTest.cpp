#include "Advice.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace zavctl {
namespace {

// The table below a heading of the page, without its first two lines.
std::string tableOf(const std::string& heading) {
    std::ifstream page(COMMON_ERRORS);
    std::string text;
    bool found = false;
    int inTable = 0;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("## ", 0) == 0) found = line == "## " + heading;
        if (found && line.rfind('|', 0) == 0 && ++inTable > 2) text += line + "\n";
    }
    return text;
}

std::string tableOf(const std::vector<Advice>& rows) {
    std::string text;
    for (const Advice& row : rows)
        text += std::string("| ") + row.line + " | " + row.meaning + " | " + row.remedy + " |\n";
    return text;
}

std::string lineFor(const std::string& text) {
    const Advice* const advice = findAdvice(text);
    return advice == nullptr ? "" : advice->line;
}

TEST(Advice, PageAndToolSayTheSame) {
    EXPECT_GT(logAdvice().size(), 50U);
    EXPECT_EQ(tableOf("Lines of the log"), tableOf(logAdvice()));
    EXPECT_EQ(tableOf("Conclusions of zavctl"), tableOf(ownAdvice()));
}

TEST(Advice, NoLineHasTwoRows) {
    std::set<std::string> lines;
    for (const auto& rows : {logAdvice(), ownAdvice()}) {
        for (const Advice& row : rows) EXPECT_TRUE(lines.insert(row.line).second) << row.line;
    }
}

TEST(Advice, TheMostExactLineIsChosen) {
    EXPECT_EQ(lineFor("Curl Error: No error HTTP Error: 404 Not Found"),
              "`Curl Error: No error HTTP Error: 404 Not Found`");
    EXPECT_EQ(lineFor("Curl Error: No error HTTP Error: 503 Service Unavailable"),
              "`Curl Error: No error HTTP Error: …`");
    EXPECT_EQ(lineFor("Could not set param : 'A'='?\?\?' (exception map::at)"),
              "`Could not set param : '…'='?\?\?' (exception …)`");
    EXPECT_EQ(lineFor("Could not set param : '?\?\?'='?\?\?' (exception map::at)"),
              "`Could not set param : '?\?\?'='?\?\?' (exception …)`");
    EXPECT_EQ(lineFor("Could not set param : 'A'='b' (exception Property 'A': read-only: may not be written)"),
              "`Could not set param : '…'='…' (exception … read-only: …)`");
    EXPECT_EQ(lineFor("Cannot write /var/volatile/provisioning/nvm/: Invalid argument"), "`Cannot write …/: …`");
    EXPECT_EQ(lineFor("Cannot write /var/volatile/provisioning/nvm: Invalid argument"), "`Cannot write …`");
    EXPECT_EQ(lineFor("Custom step type '?\?\?' not implemented"), "`Custom step type '?\?\?' not implemented`");
    EXPECT_EQ(lineFor("Could not set param : 'A'='b' (exception c)"), "`Could not set param : '…'='…' (exception …)`");
}

TEST(Advice, ALineFitsFromItsBeginningToItsEnd) {
    EXPECT_EQ(lineFor("Url is incorrect, please verify"), "`Url is incorrect, please verify`");
    EXPECT_EQ(lineFor("Url is incorrect, please verify "), "`Url is incorrect, please verify`") << "trailing blanks";
    EXPECT_EQ(lineFor("Url is incorrect, please verify it"), "");
    EXPECT_EQ(lineFor("The Url is incorrect, please verify"), "");
    EXPECT_EQ(lineFor("File  is corrupted"), "`File … is corrupted`") << "any text may be empty";
    EXPECT_EQ(lineFor("File is corrupted"), "") << "the pieces do not overlap";
    EXPECT_EQ(lineFor(""), "");
}

TEST(Advice, SeveralLinesShareARow) {
    const std::string second = "File https://s/x.xml follows 1000 others in this pass and will not be downloaded";
    EXPECT_EQ(lineFor(second), lineFor("Job: nvm is nested more than 16 handlers deep and will not be started"));
    EXPECT_NE(lineFor(second), "");
}

TEST(Advice, RemediesBecomePlainText) {
    const auto plain = [](const char* remedy) { return plainRemedy({"", "", remedy}); };
    EXPECT_EQ(plain("write `a`, or [Credentials](security.md#credentials) (b)"),
              "write a, or Credentials (docs/security.md) (b)");
    EXPECT_EQ(plain("[Mistakes](#mistakes-in-format-11)"), "Mistakes (docs/common-errors.md)");
    EXPECT_EQ(plain("[firmware-versions.md](firmware-versions.md)"), "docs/firmware-versions.md");
    EXPECT_EQ(plain("a [b] and [c"), "a [b] and [c");
    EXPECT_EQ(plain("–"), "");
}

}  // namespace
}  // namespace zavctl
