#include <gmock/gmock.h>

#include "ExplainFixture.h"

namespace explain {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class ExplainedJobs : public ExplainTest {
 protected:
    Explanation firmware(const std::string& attributes) const {
        return explained(direct("<firmware><file url='/image' " + attributes + "/></firmware>"));
    }
    static std::vector<std::string> written(const Explanation& explanation, const std::string& group) {
        std::vector<std::string> found;
        for (const std::string& event : events(explanation, Kind::written)) {
            if (event.rfind(group, 0) == 0) found.push_back(event);
        }
        return found;
    }
};

TEST_F(ExplainedJobs, SettingsShowOldAndNewValues) {
    request.properties["Time.Format"] = "12h";
    const Explanation explanation =
        explained(direct("<nvm><param name='Time.Format' value='24h'/><param name='Time.Format' value='12h'/></nvm>"));
    EXPECT_EQ(explanation.status, "success");
    EXPECT_EQ(explanation.httpCode, "200");
    EXPECT_THAT(written(explanation, "Time."),
                ElementsAre("Time.Format|12h|24h|provisioning", "Time.Format|24h|12h|provisioning"));
    EXPECT_THAT(events(explanation, Kind::started), ElementsAre("nvm/param||NVMJobHandler|"));
    EXPECT_THAT(events(explanation, Kind::ended), ElementsAre("nvm/param||success|"));
}

TEST_F(ExplainedJobs, RefusedSettingsHaveTheServicesReason) {
    request.properties["FunctionKeys.2.LockProvisioning"] = "1";
    const Explanation explanation = explained(
        direct("<nvm><param name='No.Key' value='1'/><param name='System.Reboot.Automatic.Hour' value='24'/>"
               "<param name='State.Provisioning' value='request'/><param name='PhoneUI.Keys.FunctionKeys.2.Label' "
               "value='x'/><param name='PhoneUI.Keys.FunctionKeys.2.LockProvisioning' value='0'/>"
               "<param name='Time.Format' value='12h'/></nvm>"));
    EXPECT_EQ(explanation.status, "partSuccess");
    EXPECT_THAT(events(explanation, Kind::refused),
                ElementsAre("No.Key||1|Property 'No.Key': unknown key: the catalogue has no such key",
                            "System.Reboot.Automatic.Hour||24|Property 'System.Reboot.Automatic.Hour': invalid value: "
                            "must be a whole number from 0 to 23",
                            "State.Provisioning||request|Property 'State.Provisioning': read-only: may not be "
                            "written by the source \"provisioning\"",
                            "PhoneUI.Keys.FunctionKeys.2.Label||x|the function key is locked",
                            "PhoneUI.Keys.FunctionKeys.2.LockProvisioning||0|can not be set by provisioning"));
    EXPECT_THAT(events(explanation, Kind::log), IsEmpty());  // the events say it
}

TEST_F(ExplainedJobs, JobsThatDoNotRunAreDroppedWithTheReason) {
    const Explanation explanation =
        explained(direct("<nvm><file url='/x'/></nvm><nvm><param name='Time.Format' value='12h'/><x y='z'/></nvm>"));
    EXPECT_THAT(events(explanation, Kind::dropped),
                ElementsAre("nvm/x|||its elements have different names", "nvm/file|||not a job of format '1.1'"));
}

TEST_F(ExplainedJobs, NestedJobsThatDoNotRunAreDroppedWithTheReason) {
    const std::string initial = document("provisioning", "1.0", "<category type='nvm' url='/nvm.xml'/>");
    publish("nvm.xml", document("nvm", "1.0", "<file url='/nvm.xml'/>"));
    EXPECT_THAT(events(explained(initial), Kind::dropped), ElementsAre("nvm/file|||nested too deeply"));
    publish("nvm.xml", document("nvm", "1.0", "<file url='/new.xml'/>"));
    publish("new.xml", document("settings", "1.0", "<other><kind a='1'/></other>"));
    EXPECT_THAT(events(explained(initial), Kind::dropped), ElementsAre("other/kind|||unknown job type"));
}

TEST_F(ExplainedJobs, NewestFileIsChosenWithTheReason) {
    publish("nvm.xml", document("nvm", "1.0",
                                "<file version='2016-01-01_00:00:00' url='/old.xml'/>"
                                "<file version='2017-01-01_00:00:00' url='/new.xml'/>"));
    publish("new.xml", document("settings", "1.0", "<param name='Time.Format' value='12h'/>"));
    const Explanation explanation = explained(document("provisioning", "1.0", "<category type='nvm' url='/nvm.xml'/>"));
    EXPECT_THAT(events(explanation, Kind::chosen),
                ElementsAre("nvm/file||/new.xml|the newest version, 2017-01-01_00:00:00"));
    EXPECT_THAT(events(explanation, Kind::file),
                ElementsAre(server + "provisioning.xml||" + folder + "/provisioning.xml|200 OK",
                            server + "nvm.xml||" + folder + "/nvm.xml|200 OK",
                            server + "new.xml||" + folder + "/new.xml|200 OK"));
    EXPECT_EQ(explanation.status, "success");
}

TEST_F(ExplainedJobs, FileWithoutVersionCountsAsTheNewest) {
    publish("nvm.xml", document("nvm", "1.0", "<file url='/new.xml'/>"));
    EXPECT_THAT(
        events(explained(document("provisioning", "1.0", "<category type='nvm' url='/nvm.xml'/>")), Kind::chosen),
        ElementsAre("nvm/file||/new.xml|it has no version, which counts as the newest"));
    publish("nvm.xml", document("nvm", "1.0", "<file version='x' url='/new.xml'/>"));
    EXPECT_THAT(
        events(explained(document("provisioning", "1.0", "<category type='nvm' url='/nvm.xml'/>")), Kind::chosen),
        ElementsAre("nvm/file|||no file has a valid version"));
}

TEST_F(ExplainedJobs, FirmwareDecisionNamesItsRow) {
    publish("image", "firmware");
    request.properties["System.General.SoftwareVersion"] = "2.13";
    EXPECT_THAT(events(firmware("version='2.14'"), Kind::firmware), ElementsAre("2.14|2.13|installs|newer, automatic"));
    EXPECT_THAT(events(firmware("version='2.12'"), Kind::firmware), ElementsAre("2.12|2.13|refuses|older, automatic"));
    EXPECT_THAT(events(firmware("version='2.12' flags='FORCE_ACCEPT'"), Kind::firmware),
                ElementsAre("2.12|2.13|installs|older, forced"));
    EXPECT_THAT(events(firmware("version='V2.13.0'"), Kind::firmware),
                ElementsAre("V2.13.0|2.13|refuses|equal, automatic"));
    EXPECT_THAT(events(firmware("version='new'"), Kind::firmware),
                ElementsAre("new|2.13|refuses|malformed, automatic"));
    request.properties["State.FirmwareUpdate.TriggerAuto"] = "request";
    EXPECT_THAT(events(firmware("version='2.12' flags='FORCE_ACCEPT'"), Kind::firmware),
                ElementsAre("2.12|2.13|refuses|older, forced and requested"));
}

TEST_F(ExplainedJobs, FirmwareThatNobodyWantsIsSaidSo) {
    request.properties["FirmwareManagment.AutomaticCheckForUpdates"] = "0";
    const Explanation explanation = firmware("version='2.14'");
    EXPECT_THAT(events(explanation, Kind::firmware),
                ElementsAre("||nothing|the automatic check is off, no update is requested, and the job is not forced"));
    EXPECT_EQ(explanation.status, "success");
}

TEST_F(ExplainedJobs, FirmwareIsDownloadedAndHandedOver) {
    publish("image", "firmware");
    request.properties["System.General.SoftwareVersion"] = "2.13";
    EXPECT_THAT(written(firmware("version='2.14'"), "State.FirmwareUpdate"),
                ElementsAre("State.FirmwareUpdate.Filename||image|prov-client",
                            "State.FirmwareUpdate.UpdateSystem||provisioning-request|prov-client"));
    request.properties["State.FirmwareUpdate.TriggerAuto"] = "request";
    EXPECT_THAT(written(firmware("version='2.14'"), "State.FirmwareUpdate"),
                ElementsAre("State.FirmwareUpdate.Filename||image|prov-client",
                            "State.FirmwareUpdate.Verify||request|prov-client",
                            "State.FirmwareUpdate.TriggerAuto|request|success|prov-client"));
}

TEST_F(ExplainedJobs, RedirectRunsNested) {
    publish("moved/initial.xml", direct("<nvm><param name='Time.Format' value='12h'/></nvm>"));
    const Explanation explanation =
        explained(direct("<custom><step type='Redirect' url='" + server + "moved/initial.xml'/></custom>"));
    EXPECT_EQ(explanation.status, "success");
    EXPECT_THAT(written(explanation, "Time."), ElementsAre("Time.Format|24h|12h|provisioning"));
    const auto nested = std::find_if(explanation.events.begin(), explanation.events.end(),
                                     [](const Event& event) { return event.subject == "nvm/param"; });
    ASSERT_NE(nested, explanation.events.end());
    EXPECT_EQ(nested->depth, 1U);
}

TEST_F(ExplainedJobs, RedirectToItselfEnds) {
    const Explanation explanation =
        explained(direct("<custom><step type='Redirect' url='" + server + "provisioning.xml'/></custom>"));
    EXPECT_EQ(explanation.status, "fail");
    EXPECT_THAT(events(explanation, Kind::file), testing::SizeIs(4));
    EXPECT_THAT(events(explanation, Kind::log),
                Contains("error||Redirected too often, provisioning not started|Core/ProvisioningWatchdog/"
                         "ProvisioningWorker"));
}

TEST_F(ExplainedJobs, JobThatThrowsEndsThePass) {
    const Explanation explanation = explained(
        direct("<custom><step type='certificate'/></custom><nvm><param name='Time.Format' value='12h'/></nvm>"));
    EXPECT_EQ(explanation.status, "fail");
    EXPECT_THAT(events(explanation, Kind::ended), ElementsAre("custom/step||ended by an exception|"));
    EXPECT_EQ(explanation.events.back().depth, 0U);
}

}  // namespace
}  // namespace explain
