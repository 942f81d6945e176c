#include "Core/JobHandlers/NVMJobHandler.h"

#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/JobHandlers/NVMJobHandler";
const std::string prefix = "PhoneUI.Keys.FunctionKeys.";

class NVMJobHandlerTest : public tests::HandlerFixture {
 protected:
    static zav::Attributes param(const std::string& name, const std::string& value) {
        return {{"name", name}, {"value", value}};
    }
    int run(const std::vector<zav::Attributes>& items) {
        const zav::JobDescription job{"nvm", "param", items};
        const auto handler = make<zav::NVMJobHandler>(job);
        EXPECT_EQ(handler->getName(), "NVMJobHandler");
        return handler->run();
    }
    void addProperty(const std::string& key, const std::string& value = "") { phone_.properties->put(key, value); }
    void expectExtraInfo(const std::string& text) {
        const std::string all = document();
        EXPECT_NE(all.find("\"extraInfo\" : \"" + text + "\\n\""), std::string::npos) << all;
    }
};

TEST_F(NVMJobHandlerTest, JobWithoutParametersSucceeds) {
    EXPECT_EQ(run({}), 2);
    status_.setJobStatus("nvm", 2);
    expectExtraInfo("0/0");
}

TEST_F(NVMJobHandlerTest, WritesEveryParameterWithSourceProvisioning) {
    addProperty("A");
    addProperty("B");
    EXPECT_EQ(run({param("A", "1"), param("B", ""), param("A", "2")}), 2);
    EXPECT_EQ(phone_.properties->writes(),
              (std::vector<fakes::PropertyWrite>{
                  {"A", "provisioning", "1"}, {"B", "provisioning", ""}, {"A", "provisioning", "2"}}));
    EXPECT_EQ(phone_.log.lines(),
              (Lines{info(source, "Applying param: 'A'='1'"), info(source, "Applying param: 'B'=''"),
                     info(source, "Applying param: 'A'='2'")}));
}

TEST_F(NVMJobHandlerTest, ResultAndExtraInfoCountTheWrites) {
    addProperty("A");
    EXPECT_EQ(run({param("A", "1"), param("unknown", "2"), param("A", "3")}), 1);
    status_.setJobStatus("nvm", 1);
    expectExtraInfo("2/3");
    EXPECT_EQ(run({param("unknown", "1")}), 0);
    expectExtraInfo("0/1");
}

TEST_F(NVMJobHandlerTest, UnknownKeyIsAWarningOtherFailuresAreErrors) {
    const std::string unread = "'" + std::string(3, '?') + "'";
    addProperty("A");
    phone_.properties->failKey("A");
    EXPECT_EQ(run({param("unknown", "1"), param("A", "2"), {{"name", "A"}}, {{"value", "v"}}, {}}), 0);
    EXPECT_EQ(
        phone_.log.lines(),
        (Lines{info(source, "Applying param: 'unknown'='1'"), warning(source, "Property 'unknown': not found"),
               info(source, "Applying param: 'A'='2'"),
               error(source, "Could not set param : 'A'='2' (exception Property 'A': the property service is offline)"),
               error(source, "Could not set param : 'A'=" + unread + " (exception map::at)"),
               error(source, "Could not set param : " + unread + "=" + unread + " (exception map::at)"),
               error(source, "Could not set param : " + unread + "=" + unread + " (exception map::at)")}));
}

TEST_F(NVMJobHandlerTest, ShutdownStopsAJob) {
    addProperty("A");
    phone_.properties->onWrite([this](const fakes::PropertyWrite&) { stop_->stop(); });
    EXPECT_EQ(run({param("A", "1"), param("A", "2"), param("A", "3")}), 1);
    EXPECT_EQ(phone_.properties->writesTo("A"), std::vector<std::string>{"1"});
    EXPECT_TRUE(phone_.log.has(warning(source, "The process is shutting down, 1 of 3 params were applied")));
}

TEST_F(NVMJobHandlerTest, ControlBytesCannotForgeALogLine) {
    addProperty("A");
    run({param("A", "x\n2026-01-01 ZAV error forged:1")});
    EXPECT_EQ(phone_.log.lines().size(), 1U);
}

TEST_F(NVMJobHandlerTest, WritesParametersOfAnUnlockedFunctionKey) {
    addProperty(prefix + "2.Label");
    addProperty(prefix + "2.Deep.Down");
    addProperty("FunctionKeys.2.LockProvisioning", "0");
    EXPECT_EQ(run({param(prefix + "2.Label", "Home"), param(prefix + "2.Deep.Down", "x")}), 2);
    EXPECT_TRUE(phone_.log.has(info(source, "Applying function key param: '" + prefix + "2.Label'='Home'")));
    EXPECT_EQ(phone_.properties->reads(), std::vector<std::string>{"FunctionKeys.2.LockProvisioning"})
        << "the flag is read once per job";
    EXPECT_EQ(phone_.properties->writes().front().source, "provisioning");
}

TEST_F(NVMJobHandlerTest, AnythingButZeroLocksAFunctionKey) {
    addProperty(prefix + "2.Label");
    for (const char* flag : {"1", "true", "", "00", " 0"}) {
        addProperty("FunctionKeys.2.LockProvisioning", flag);
        phone_.log.forget();
        EXPECT_EQ(run({param(prefix + "2.Label", "Home")}), 0) << flag;
        EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "This parameter can not be changed because it is locked '" +
                                                                prefix + "2.Label'")});
    }
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(NVMJobHandlerTest, LockWrittenByTheSameJobIsIgnored) {
    addProperty(prefix + "2.Label");
    addProperty("FunctionKeys.2.LockProvisioning", "0");
    EXPECT_EQ(run({param(prefix + "2.Label", "a"), param("FunctionKeys.2.LockProvisioning", "1"),
                   param(prefix + "2.Label", "b")}),
              2)
        << "the flag is an ordinary parameter here, and the job has read the lock already";
}

TEST_F(NVMJobHandlerTest, LockParameterIsRefused) {
    addProperty("FunctionKeys.2.LockProvisioning", "0");
    addProperty(prefix + "2.LockProvisioning");
    EXPECT_EQ(run({param(prefix + "2.LockProvisioning", "1")}), 0);
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "This parameter can not be set by provisioning '" + prefix +
                                                            "2.LockProvisioning'")});
    EXPECT_TRUE(phone_.properties->reads().empty());
}

TEST_F(NVMJobHandlerTest, NameThatOnlyEndsLikeTheLockIsAnOrdinaryParameter) {
    const std::string name = prefix + "2.a.LockProvisioning";
    addProperty("FunctionKeys.2.LockProvisioning", "0");
    addProperty(name);
    EXPECT_EQ(run({param(name, "1")}), 2);
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "Applying function key param: '" + name + "'='1'")});
    EXPECT_EQ(phone_.properties->writesTo(name), std::vector<std::string>{"1"});
}

TEST_F(NVMJobHandlerTest, UnreadableLockIsAWarningEachTime) {
    addProperty(prefix + "2.Label");
    EXPECT_EQ(run({param(prefix + "2.Label", "a"), param(prefix + "2.Label", "b")}), 0);
    const auto line = warning(source, "Property 'FunctionKeys.2.LockProvisioning': not found");
    EXPECT_EQ(phone_.log.lines(), (Lines{line, line})) << "nothing was cached";
}

TEST_F(NVMJobHandlerTest, MalformedFunctionKeyNames) {
    const std::string signature =
        "'std::pair<const std::basic_string<char>, const std::basic_string<char> > "
        "zav::{anonymous}::getIndexAndPostfix(const string&, const string&)'";
    EXPECT_EQ(run({param(prefix + "7", "v"), param(prefix, "v"), param(prefix + "a.Label", "v"),
                   param(prefix + ".Label", "v"), param(prefix + "99999999999.Label", "v")}),
              0);
    EXPECT_EQ(phone_.log.lines(),
              (Lines{error(source, "Could not set param : '" + prefix +
                                       "7'='v' (exception Function key parameter name invalid " + signature + ")"),
                     error(source, "Could not set param : '" + prefix +
                                       "'='v' (exception Function key parameter name invalid " + signature + ")"),
                     error(source, "Could not set param : '" + prefix + "a.Label'='v' (exception stoi)"),
                     error(source, "Could not set param : '" + prefix + ".Label'='v' (exception stoi)"),
                     error(source, "Could not set param : '" + prefix + "99999999999.Label'='v' (exception stoi)")}));
}

TEST_F(NVMJobHandlerTest, PrefixMatchesOnlyAtTheBeginning) {
    const std::string name = "Other." + prefix + "2.Label";
    addProperty(name);
    EXPECT_EQ(run({param(name, "v")}), 2);
    EXPECT_TRUE(phone_.log.has(info(source, "Applying param: '" + name + "'='v'")));
    EXPECT_FALSE(zav::isFunctionKeyParam("PhoneUI.Keys.FunctionKeys", prefix));
    EXPECT_FALSE(zav::isFunctionKeyParam("", prefix));
    EXPECT_TRUE(zav::isFunctionKeyParam(prefix + "3.Label", prefix));
    EXPECT_THROW(zav::isFunctionKeyParam(prefix + "3", prefix), zav::InvalidFormatException);
}

}  // namespace
