#include "Core/Constants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zav::constants;

TEST(ConstantsTest, ComposedTopics) {
    EXPECT_EQ(systemPropertyTopic, "prop-service-system/#");
    EXPECT_EQ(statePropertyTopic, "prop-service-state/#");
    EXPECT_EQ(watchdogQueryTopic, "watchdog/prov-client");
    EXPECT_EQ(autoRebootQueryTopic, "auto-reboot/prov-client");
    EXPECT_EQ(watchdogReplyTopic, "prov-client/watchdog");
    EXPECT_EQ(autoRebootReplyTopic, "prov-client/auto-reboot");
}

TEST(ConstantsTest, MessageTexts) {
    EXPECT_EQ(watchdogQuery, "Are you alive?");
    EXPECT_EQ(watchdogReply, "{\"param\":\"Ok\"}");
    EXPECT_EQ(autoRebootBusyQueryKey, "State.System.QA.AutomaticReboot.IsBusyQuery");
    EXPECT_EQ(busyReply, "{\"param\":\"State.System.QA.AutomaticReboot.IsBusy\", \"value\":\"1\"}")
        << "the space after the comma is required";
    EXPECT_EQ(quitWord, "quit");
}

TEST(ConstantsTest, Words) {
    EXPECT_EQ(clientName, "prov-client");
    EXPECT_EQ(brokerHost, "localhost");
    EXPECT_EQ(requestWord, "request");
    EXPECT_EQ(requestCheckSyncWord, "request-check-sync");
    EXPECT_EQ(successWord, "success");
    EXPECT_EQ(partSuccessWord, "partSuccess");
    EXPECT_EQ(failWord, "fail");
    EXPECT_EQ(noVersionWord, "no_version");
    EXPECT_EQ(bootUpDoneWord, "done");
    EXPECT_EQ(provisioningSource, "provisioning");
    EXPECT_EQ(messageKey, "param");
    EXPECT_EQ(messageValue, "value");
}

TEST(ConstantsTest, PropertyKeys) {
    EXPECT_EQ(periodKey, "System.Provision.Period");
    EXPECT_EQ(provisioningServerKey, "System.Provision.ProvisioningServer");
    EXPECT_EQ(debugLevelMaskKey, "System.Debug.LevelMask.ZAV");
    EXPECT_EQ(softwareVersionKey, "System.General.SoftwareVersion");
    EXPECT_EQ(settingsVersionKey, "System.Provision.SettingsVersion");
    EXPECT_EQ(customVersionKey, "System.Provision.CustomVersion");
    EXPECT_EQ(provisioningVersionKey, "System.Provision.ProvisioningVersion");
    EXPECT_EQ(factoryAuthUsernameKey, "System.Provision.FactoryAuthUsername");
    EXPECT_EQ(factoryAuthPasswordKey, "System.Provision.FactoryAuthPassword");
    EXPECT_EQ(provisioningStateKey, "State.Provisioning");
    EXPECT_EQ(provisioningOnBootUpKey, "State.Provisioning.OnBootUp");
    EXPECT_EQ(provisioningHttpErrorCodeKey, "State.Provisioning.HttpErrorCode");
    EXPECT_EQ(provisioningLockUiKey, "State.Provisioning.LockUI");
    EXPECT_EQ(firmwareTriggerAutoKey, "State.FirmwareUpdate.TriggerAuto");
    EXPECT_EQ(firmwareVerifyKey, "State.FirmwareUpdate.Verify");
    EXPECT_EQ(firmwareFilenameKey, "State.FirmwareUpdate.Filename");
    EXPECT_EQ(firmwareUpdateSystemKey, "State.FirmwareUpdate.UpdateSystem");
    EXPECT_EQ(firmwareAutomaticCheckKey, "FirmwareManagment.AutomaticCheckForUpdates");
    EXPECT_EQ(updateCaBundleKey, "State.Security.Certificates.UpdateCABundle");
    EXPECT_EQ(certificatePendingKey, "State.Security.Certificates.Pending");
    EXPECT_EQ(certificateAcceptKey, "State.Security.Certificates.Accept");
    EXPECT_EQ(certificateInvalidKey, "State.Security.Certificates.Invalid");
    EXPECT_EQ(phoneBookFileNameKey, "State.LocalDirectoryUpdate.FileName");
    EXPECT_EQ(phoneBookVerifyKey, "State.LocalDirectoryUpdate.Verify");
    EXPECT_EQ(macAddressKey, "NET.MAC.Address");
}

TEST(ConstantsTest, NetworkKeys) {
    EXPECT_THAT(networkKeys, testing::ElementsAre(
                                 "NET.General.DeviceNameInNetwork", "NET.LAN.IP.DHCP.Enabled", "NET.IP.AddressType",
                                 "NET.IP.IPv4.Address", "NET.IP.IPv4.SubnetMask", "NET.IP.IPv4.StandardGateway",
                                 "NET.IP.IPv4.PreferredDNSServer", "NET.IP.IPv4.AlternateDNSServer", "NET.VLAN.Tagging",
                                 "NET.VLAN.LAN.Identifier", "NET.VLAN.LAN.Priority", "NET.VLAN.PC.Identifier",
                                 "NET.VLAN.PC.Priority", "NET.IP.IPv4.DHCP.Options.VendorEncapsulated",
                                 "NET.IP.IPv4.DHCP.Options.NTP", "NET.SwitchSettings.EnablePortMirroring"));
}

TEST(ConstantsTest, PhoneSystemTypes) {
    EXPECT_EQ(phoneSystemTypeKey, "Telephony.PhoneSystem.Type");
    EXPECT_THAT(phoneSystemTypes, testing::ElementsAre("3", "7", "8", "9"));
}

}  // namespace
