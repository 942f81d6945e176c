// Names shared with the rest of the phone: bus names and topics, messages, request and result words, property keys.
// Initialised before main; constructors of static objects must not use them.
#pragma once

#include <string>

namespace zav::constants {

// Names on the bus
extern const std::string clientName;
extern const std::string brokerHost;
extern const std::string propertyServiceName;
extern const std::string systemSuffix;
extern const std::string stateSuffix;
extern const std::string watchdogServiceName;
extern const std::string autoRebootServiceName;

// Topics. A query arrives on SERVICE/prov-client, its reply goes to prov-client/SERVICE.
extern const std::string systemPropertyTopic;
extern const std::string statePropertyTopic;
extern const std::string watchdogQueryTopic;
extern const std::string autoRebootQueryTopic;
extern const std::string watchdogReplyTopic;
extern const std::string autoRebootReplyTopic;

// Messages
extern const std::string messageKey;    // the member that names the property or query
extern const std::string messageValue;  // the member that holds its value
extern const std::string watchdogQuery;
extern const std::string watchdogReply;
extern const std::string busyReply;
extern const std::string quitWord;

// Request and result words
extern const std::string requestWord;
extern const std::string requestCheckSyncWord;
extern const std::string successWord;
extern const std::string partSuccessWord;
extern const std::string failWord;
extern const std::string noVersionWord;
extern const std::string bootUpDoneWord;
extern const std::string uiLocked;
extern const std::string uiUnlocked;
extern const std::string provisioningSource;  // the source of settings written by a pass

// Phone system types
extern const std::string phoneSystemTypeKey;
extern const std::string phoneSystemTypes[4];

// Property keys
extern const std::string periodKey;
extern const std::string provisioningServerKey;
extern const std::string debugLevelMaskKey;
extern const std::string softwareVersionKey;
extern const std::string settingsVersionKey;
extern const std::string customVersionKey;
extern const std::string provisioningVersionKey;
extern const std::string factoryAuthUsernameKey;
extern const std::string factoryAuthPasswordKey;
extern const std::string provisioningStateKey;
extern const std::string provisioningOnBootUpKey;
extern const std::string provisioningHttpErrorCodeKey;
extern const std::string provisioningLockUiKey;
extern const std::string firmwareTriggerAutoKey;
extern const std::string firmwareVerifyKey;
extern const std::string firmwareFilenameKey;
extern const std::string firmwareUpdateSystemKey;
extern const std::string firmwareAutomaticCheckKey;
extern const std::string updateCaBundleKey;
extern const std::string certificatePendingKey;
extern const std::string certificateAcceptKey;
extern const std::string certificateInvalidKey;
extern const std::string phoneBookFileNameKey;
extern const std::string phoneBookVerifyKey;
extern const std::string autoRebootBusyQueryKey;
extern const std::string macAddressKey;

// Network keys that every module of the phone knows
extern const std::string networkKeys[16];

}  // namespace zav::constants
