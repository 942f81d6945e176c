// Names shared with the rest of the phone: bus names and topics, messages, request and result words, property keys.
// Initialised before main; constructors of static objects must not use them.
#pragma once

#include <string>

#include "propertyprotocol/Topics.h"

namespace zav {

struct Constants {
    // Names on the bus
    const std::string clientName = "prov-client";
    const std::string brokerHost = "localhost";
    const std::string propertyServiceName = propertyprotocol::serviceName;
    const std::string systemSuffix = "-system";
    const std::string stateSuffix = "-state";
    const std::string watchdogServiceName = "watchdog";
    const std::string autoRebootServiceName = "auto-reboot";

    // Topics. A query arrives on SERVICE/prov-client, its reply goes to prov-client/SERVICE.
    const std::string systemPropertyTopic = propertyServiceName + systemSuffix + "/" + "#";
    const std::string statePropertyTopic = propertyServiceName + stateSuffix + "/" + "#";
    const std::string watchdogQueryTopic = watchdogServiceName + "/" + clientName;
    const std::string autoRebootQueryTopic = autoRebootServiceName + "/" + clientName;
    const std::string watchdogReplyTopic = clientName + "/" + watchdogServiceName;
    const std::string autoRebootReplyTopic = clientName + "/" + autoRebootServiceName;
    const std::string progressTopic = clientName + "-progress";

    // Messages
    const std::string messageKey = "param";    // the member that names the property or query
    const std::string messageValue = "value";  // the member that holds its value
    const std::string watchdogQuery = "Are you alive?";
    const std::string watchdogReply = R"({"param":"Ok"})";
    const std::string busyReply = R"({"param":"State.System.QA.AutomaticReboot.IsBusy", "value":"1"})";
    const std::string quitWord = "quit";

    // Request and result words
    const std::string requestWord = "request";
    const std::string requestCheckSyncWord = "request-check-sync";
    const std::string successWord = "success";
    const std::string partSuccessWord = "partSuccess";
    const std::string failWord = "fail";
    const std::string noVersionWord = "no_version";
    const std::string bootUpDoneWord = "done";
    const std::string uiLocked = "1";
    const std::string uiUnlocked = "0";
    const std::string provisioningSource = "provisioning";  // the source of settings written by a pass

    // Phone system types
    const std::string phoneSystemTypeKey = "Telephony.PhoneSystem.Type";
    const std::string phoneSystemTypes[4] = {"3", "7", "8", "9"};

    // Property keys
    const std::string periodKey = "System.Provision.Period";
    const std::string provisioningServerKey = "System.Provision.ProvisioningServer";
    const std::string debugLevelMaskKey = "System.Debug.LevelMask.ZAV";
    const std::string softwareVersionKey = "System.General.SoftwareVersion";
    const std::string settingsVersionKey = "System.Provision.SettingsVersion";
    const std::string customVersionKey = "System.Provision.CustomVersion";
    const std::string provisioningVersionKey = "System.Provision.ProvisioningVersion";
    const std::string factoryAuthUsernameKey = "System.Provision.FactoryAuthUsername";
    const std::string factoryAuthPasswordKey = "System.Provision.FactoryAuthPassword";
    const std::string provisioningStateKey = "State.Provisioning";
    const std::string provisioningOnBootUpKey = "State.Provisioning.OnBootUp";
    const std::string provisioningHttpErrorCodeKey = "State.Provisioning.HttpErrorCode";
    const std::string provisioningLockUiKey = "State.Provisioning.LockUI";
    const std::string firmwareTriggerAutoKey = "State.FirmwareUpdate.TriggerAuto";
    const std::string firmwareVerifyKey = "State.FirmwareUpdate.Verify";
    const std::string firmwareFilenameKey = "State.FirmwareUpdate.Filename";
    const std::string firmwareUpdateSystemKey = "State.FirmwareUpdate.UpdateSystem";
    const std::string firmwareAutomaticCheckKey = "FirmwareManagment.AutomaticCheckForUpdates";
    const std::string updateCaBundleKey = "State.Security.Certificates.UpdateCABundle";
    const std::string certificatePendingKey = "State.Security.Certificates.Pending";
    const std::string certificateAcceptKey = "State.Security.Certificates.Accept";
    const std::string certificateInvalidKey = "State.Security.Certificates.Invalid";
    const std::string phoneBookFileNameKey = "State.LocalDirectoryUpdate.FileName";
    const std::string phoneBookVerifyKey = "State.LocalDirectoryUpdate.Verify";
    const std::string autoRebootBusyQueryKey = "State.System.QA.AutomaticReboot.IsBusyQuery";
    const std::string macAddressKey = "NET.MAC.Address";

    // Network keys that every module of the phone knows
    const std::string networkKeys[16] = {
        "NET.General.DeviceNameInNetwork",
        "NET.LAN.IP.DHCP.Enabled",
        "NET.IP.AddressType",
        "NET.IP.IPv4.Address",
        "NET.IP.IPv4.SubnetMask",
        "NET.IP.IPv4.StandardGateway",
        "NET.IP.IPv4.PreferredDNSServer",
        "NET.IP.IPv4.AlternateDNSServer",
        "NET.VLAN.Tagging",
        "NET.VLAN.LAN.Identifier",
        "NET.VLAN.LAN.Priority",
        "NET.VLAN.PC.Identifier",
        "NET.VLAN.PC.Priority",
        "NET.IP.IPv4.DHCP.Options.VendorEncapsulated",
        "NET.IP.IPv4.DHCP.Options.NTP",
        "NET.SwitchSettings.EnablePortMirroring",
    };
};

extern const Constants constants;

}  // namespace zav
