#include <gmock/gmock.h>

#include "ExplainFixture.h"

namespace explain {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ExplainAdvice : public ExplainTest {
 protected:
    std::vector<std::string> adviceOn(const std::string& initialFile) {
        return events(explained(initialFile), Kind::advice);
    }
    std::vector<std::string> adviceOnSetting(const std::string& attributes) {
        return adviceOn(direct("<nvm><param " + attributes + "/></nvm>"));
    }
};

TEST_F(ExplainAdvice, NoneForAFileThatIsRight) {
    EXPECT_THAT(adviceOnSetting("name='Time.Format' value='12h'"), IsEmpty());
}

TEST_F(ExplainAdvice, CorruptedFileIsLinted) {
    EXPECT_THAT(adviceOnSetting("name=\u201CTime.Format\u201D value='12h'"),
                ElementsAre(AllOf(HasSubstr(folder + "/provisioning.xml:1:"), HasSubstr("straight quotation marks"))));
    EXPECT_THAT(adviceOn(""), ElementsAre(HasSubstr("The file is empty")));
    request.keyFile = folder + "/key";
    publish("key", "secret\n");
    EXPECT_THAT(adviceOn("Salted__12345678"), ElementsAre(HasSubstr("not with the key in")));
}

TEST_F(ExplainAdvice, MissingAttributeIsNamed) {
    EXPECT_THAT(adviceOnSetting("Name='Time.Format' value='12h'"), ElementsAre(HasSubstr("write \"name\"")));
    EXPECT_THAT(adviceOnSetting("name='Time.Format'"), ElementsAre(HasSubstr("add value")));
    const std::string job = "<category type='nvm'/>";
    EXPECT_THAT(adviceOn(document("provisioning", "1.0", job)), ElementsAre(HasSubstr("\"category\" has no \"url\"")));
    const Explanation explanation = explained(direct("<nvm><param name='Time.Format'/></nvm>"));
    EXPECT_THAT(events(explanation, Kind::refused),
                ElementsAre("Time.Format|||" + std::string(Event::missingAttribute)));
}

TEST_F(ExplainAdvice, WhatThePhoneSkipsWithoutALineIsNamed) {
    EXPECT_THAT(adviceOn(direct("<nvm><param name='Time.Format'>12h</param></nvm>")),
                ElementsAre(AllOf(HasSubstr(folder + "/provisioning.xml:1:"), HasSubstr("write the text as value"))));
    EXPECT_THAT(adviceOn(direct("<nvm><param name='Audio.Ringer.Volume' value='4'/>"
                                "<param name='Time.Format' value='12h'> </param></nvm>")),
                ElementsAre(HasSubstr("something stands inside it")));
    EXPECT_THAT(adviceOn(direct("<nvm></nvm>")), ElementsAre(HasSubstr("The file has no job")));
    EXPECT_THAT(adviceOn(document("provisioning", "1.0", "<category type='NVM' url='/nvm.xml'/>")),
                ElementsAre(HasSubstr("There is no category \"NVM\"; write \"nvm\"")));
}

TEST_F(ExplainAdvice, RefusedSettingsHaveARemedy) {
    EXPECT_THAT(adviceOnSetting("name='Telephony.Accounts.99.Label' value='x'"), ElementsAre(HasSubstr("from 0 to 7")));
    EXPECT_THAT(adviceOnSetting("name='Time.Fromat' value='x'"), ElementsAre(HasSubstr("write \"Time.Format\"")));
    EXPECT_THAT(adviceOnSetting("name='State.Provisioning' value='request'"),
                ElementsAre(HasSubstr("remove the setting")));
}

TEST_F(ExplainAdvice, AddressInAnotherFormIsNotAnotherPhone) {
    const Explanation explanation =
        explained("<provisioning version='1.1' productID='kd4v' macAddress='02-00-5E-10-00-01'/>");
    EXPECT_THAT(events(explanation, Kind::dropped),
                ElementsAre(HasSubstr("'02-00-5E-10-00-01' is not written as this phone's, " + mac)));
}

TEST_F(ExplainAdvice, MisspeltPlaceholdersAndSteps) {
    const auto advice =
        adviceOn(direct("<custom><step type='LocalPhoneBook' url='/%MAC/book'/><step type='Redirct'/></custom>"));
    EXPECT_THAT(advice, ElementsAre(HasSubstr("\"%MAC/\" is not a placeholder"), HasSubstr("write \"Redirect\"")));
}

TEST_F(ExplainAdvice, NameWithoutASlashIsTheFirstThingSaid) {
    const Explanation explanation = explained(document("provisioning", "1.0", "<category type='nvm' url='nvm.xml'/>"));
    EXPECT_THAT(events(explanation, Kind::advice), ElementsAre(HasSubstr("names a server and no file")));
    EXPECT_THAT(events(explanation, Kind::log), Not(Contains(HasSubstr("Cannot write"))));
}

}  // namespace
}  // namespace explain
