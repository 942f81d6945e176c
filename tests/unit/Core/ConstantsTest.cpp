#include "Core/Constants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using zav::constants;

TEST(ConstantsTest, ComposedTopics) {
    EXPECT_EQ(constants.systemPropertyTopic, "prop-service-system/#");
    EXPECT_EQ(constants.statePropertyTopic, "prop-service-state/#");
    EXPECT_EQ(constants.watchdogQueryTopic, "watchdog/prov-client");
    EXPECT_EQ(constants.autoRebootQueryTopic, "auto-reboot/prov-client");
    EXPECT_EQ(constants.watchdogReplyTopic, "prov-client/watchdog");
    EXPECT_EQ(constants.autoRebootReplyTopic, "prov-client/auto-reboot");
    EXPECT_EQ(constants.progressTopic, "prov-client-progress");
}

TEST(ConstantsTest, MessageTexts) {
    EXPECT_EQ(constants.watchdogQuery, "Are you alive?");
    EXPECT_EQ(constants.watchdogReply, "{\"param\":\"Ok\"}");
    EXPECT_EQ(constants.autoRebootBusyQueryKey, "State.System.QA.AutomaticReboot.IsBusyQuery");
    EXPECT_EQ(constants.busyReply, "{\"param\":\"State.System.QA.AutomaticReboot.IsBusy\", \"value\":\"1\"}")
        << "the space after the comma is required";
    EXPECT_EQ(constants.quitWord, "quit");
}

TEST(ConstantsTest, Words) {
    EXPECT_EQ(constants.clientName, "prov-client");
    EXPECT_EQ(constants.brokerHost, "localhost");
    EXPECT_EQ(constants.requestWord, "request");
    EXPECT_EQ(constants.requestCheckSyncWord, "request-check-sync");
    EXPECT_EQ(constants.successWord, "success");
    EXPECT_EQ(constants.partSuccessWord, "partSuccess");
    EXPECT_EQ(constants.failWord, "fail");
    EXPECT_EQ(constants.noVersionWord, "no_version");
    EXPECT_EQ(constants.bootUpDoneWord, "done");
    EXPECT_EQ(constants.provisioningSource, "provisioning");
    EXPECT_EQ(constants.messageKey, "param");
    EXPECT_EQ(constants.messageValue, "value");
}

TEST(ConstantsTest, PropertyKeys) {
    EXPECT_EQ(constants.periodKey, "System.Provision.Period");
    EXPECT_EQ(constants.provisioningServerKey, "System.Provision.ProvisioningServer");
    EXPECT_EQ(constants.debugLevelMaskKey, "System.Debug.LevelMask.ZAV");
    EXPECT_EQ(constants.softwareVersionKey, "System.General.SoftwareVersion");
    EXPECT_EQ(constants.settingsVersionKey, "System.Provision.SettingsVersion");
    EXPECT_EQ(constants.customVersionKey, "System.Provision.CustomVersion");
    EXPECT_EQ(constants.provisioningVersionKey, "System.Provision.ProvisioningVersion");
    EXPECT_EQ(constants.factoryAuthUsernameKey, "System.Provision.FactoryAuthUsername");
    EXPECT_EQ(constants.factoryAuthPasswordKey, "System.Provision.FactoryAuthPassword");
    EXPECT_EQ(constants.provisioningStateKey, "State.Provisioning");
    EXPECT_EQ(constants.provisioningOnBootUpKey, "State.Provisioning.OnBootUp");
    EXPECT_EQ(constants.provisioningHttpErrorCodeKey, "State.Provisioning.HttpErrorCode");
    EXPECT_EQ(constants.provisioningLockUiKey, "State.Provisioning.LockUI");
    EXPECT_EQ(constants.firmwareTriggerAutoKey, "State.FirmwareUpdate.TriggerAuto");
    EXPECT_EQ(constants.firmwareVerifyKey, "State.FirmwareUpdate.Verify");
    EXPECT_EQ(constants.firmwareFilenameKey, "State.FirmwareUpdate.Filename");
    EXPECT_EQ(constants.firmwareUpdateSystemKey, "State.FirmwareUpdate.UpdateSystem");
    EXPECT_EQ(constants.firmwareAutomaticCheckKey, "FirmwareManagment.AutomaticCheckForUpdates");
    EXPECT_EQ(constants.updateCaBundleKey, "State.Security.Certificates.UpdateCABundle");
    EXPECT_EQ(constants.certificatePendingKey, "State.Security.Certificates.Pending");
    EXPECT_EQ(constants.certificateAcceptKey, "State.Security.Certificates.Accept");
    EXPECT_EQ(constants.certificateInvalidKey, "State.Security.Certificates.Invalid");
    EXPECT_EQ(constants.phoneBookFileNameKey, "State.LocalDirectoryUpdate.FileName");
    EXPECT_EQ(constants.phoneBookVerifyKey, "State.LocalDirectoryUpdate.Verify");
    EXPECT_EQ(constants.macAddressKey, "NET.MAC.Address");
}

TEST(ConstantsTest, NetworkKeys) {
    EXPECT_THAT(
        constants.networkKeys,
        testing::ElementsAre("NET.General.DeviceNameInNetwork", "NET.LAN.IP.DHCP.Enabled", "NET.IP.AddressType",
                             "NET.IP.IPv4.Address", "NET.IP.IPv4.SubnetMask", "NET.IP.IPv4.StandardGateway",
                             "NET.IP.IPv4.PreferredDNSServer", "NET.IP.IPv4.AlternateDNSServer", "NET.VLAN.Tagging",
                             "NET.VLAN.LAN.Identifier", "NET.VLAN.LAN.Priority", "NET.VLAN.PC.Identifier",
                             "NET.VLAN.PC.Priority", "NET.IP.IPv4.DHCP.Options.VendorEncapsulated",
                             "NET.IP.IPv4.DHCP.Options.NTP", "NET.SwitchSettings.EnablePortMirroring"));
}

TEST(ConstantsTest, PhoneSystemTypes) {
    EXPECT_EQ(constants.phoneSystemTypeKey, "Telephony.PhoneSystem.Type");
    EXPECT_THAT(constants.phoneSystemTypes, testing::ElementsAre("3", "7", "8", "9"));
}

}  // namespace
