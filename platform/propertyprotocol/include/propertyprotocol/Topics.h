// Topics of the property service.
#pragma once

#include <string>
#include <string_view>

namespace propertyprotocol {

inline constexpr char serviceName[] = "prop-service";

/// Retained presence: onlineStatus or offlineStatus.
inline constexpr char statusTopic[] = "prop-service/status";
inline constexpr char onlineStatus[] = "online";
inline constexpr char offlineStatus[] = "offline";

inline constexpr char getTopic[] = "prop-service/get";
inline constexpr char setTopic[] = "prop-service/set";
inline constexpr char listTopic[] = "prop-service/list";
inline constexpr char describeTopic[] = "prop-service/describe";
inline constexpr char importTopic[] = "prop-service/import";

/// "prop-service-GROUP/KEY", where GROUP is the first segment of the key in lower case.
std::string changeTopic(std::string_view key);

/// The filter for all changes of a group of keys, given in any case.
std::string changeFilter(const std::string& group);

bool isChangeTopic(const std::string& topic);

/// Whether the protocol reserves the topic: for presence, requests or changes. No response may use it.
bool isServiceTopic(const std::string& topic);

}  // namespace propertyprotocol
