#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Lint.h"
#include "lint/Remedies.h"

namespace lint {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string volume = R"(<param name="Audio.Ringer.Volume" value="4"/>)";

/// "LEVEL RULE: FIX" of each finding.
std::vector<std::string> lint(const std::string& text, const Options& given = options()) {
    std::vector<std::string> all;
    for (const Finding& finding : lintDocument("file.xml", text, given)) {
        all.push_back(std::string(nameOf(finding.level)) + " " + finding.rule + ": " + finding.fix);
    }
    return all;
}

std::string setting(const std::string& attributes) { return provisioning("<nvm><param " + attributes + "/></nvm>"); }

TEST(LintAttributes, MisspeltOneIsAnErrorAndReportedOnce) {
    const std::string error = "error misspelt-attribute: write ";
    EXPECT_THAT(lint(setting(R"(Name="Time.Format" value="12h")")), ElementsAre(error + "\"name\""));
    EXPECT_THAT(lint(setting(R"(name="Time.Format" Value="12h")")), ElementsAre(error + "\"value\""));
    const std::string nvm = "<nvm>" + volume + "</nvm></provisioning>";
    EXPECT_THAT(lint(R"(<provisioning Version="1.1" productID="kd4v">)" + nvm), ElementsAre(error + "\"version\""));
    EXPECT_THAT(lint(R"(<provisioning version="1.1" productId="kd4v">)" + nvm), ElementsAre(error + "\"productID\""));
    EXPECT_THAT(lint(R"(<provisioning version="1.1" productID="kd4v" MACAddress="02:00:5E:10:00:01">)" + nvm),
                ElementsAre(error + "\"macAddress\""));
    EXPECT_THAT(lint(provisioning(R"(<custom><step Type="UnlockAllFunctionKeys"/></custom>)")),
                ElementsAre(error + "\"type\""));
}

TEST(LintAttributes, OneThatIsThereOrNotKnownIsAWarning) {
    EXPECT_THAT(lint(setting(R"(name="Time.Format" value="12h" Name="Time.Format")")),
                ElementsAre("warning unknown-attribute: write \"name\""));
    EXPECT_THAT(lint(setting(R"(name="Time.Format" value="12h" comment="x")")),
                ElementsAre(HasSubstr("warning unknown-attribute")));
}

TEST(LintKeys, NumberOutOfRangeIsNamed) {
    EXPECT_THAT(lint(setting(R"(name="Telephony.Accounts.99.DisplayName" value="x")")),
                ElementsAre("error unknown-key: write a number from 0 to 7 in place of 99"));
    EXPECT_EQ(keyRemedy(*options().settings, "FunctionKeys.8.LockProvisioning"),
              "write a number from 0 to 7 in place of 8");
    EXPECT_EQ(keyRemedy(*options().settings, "Time.Fromat"), "write \"Time.Format\"");
    EXPECT_EQ(keyRemedy(*options().settings, "9"), "");
}

TEST(LintKeys, UnknownStateIsNotASetting) {
    EXPECT_THAT(lint(setting(R"(name="State.Zzzzzz" value="x")")),
                ElementsAre("error unknown-key: remove it: keys below State. are not settings"));
}

TEST(LintQuotes, TypographicOnesAreNamed) {
    for (const char* quote : {"\u201C", "\u201D", "\u2018", "\u00AB"}) {
        EXPECT_THAT(lint(setting("name=" + std::string(quote) + "Time.Format\u201D value=\"12h\"")),
                    ElementsAre("error not-well-formed: write straight quotation marks: \""));
    }
    EXPECT_THAT(lint(setting("name=Time.Format value=\"12h\"")),
                ElementsAre("error not-well-formed: put the value in quotation marks"));
}

TEST(LintPlaceholders, MisspeltOneIsCorrected) {
    EXPECT_EQ(unknownPlaceholder("/%MACC/%MACD/%DVID/%2F"), std::nullopt);
    for (const auto& [url, word, fix] : {std::tuple("/%MAC/x", "%MAC/", "write %MACD"),
                                         {"/%macd/", "%macd", "write %MACD"},
                                         {"/%DEVI/", "%DEVI", "write %DVID"},
                                         {"/100%", "%", "write %MACC"}}) {
        EXPECT_EQ(unknownPlaceholder(url), word);
        EXPECT_THAT(placeholderRemedy(word), testing::StartsWith(fix));
    }
}

}  // namespace
}  // namespace lint
