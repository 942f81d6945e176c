// Topics and filters, as in ipc/IIPCClient.h.
#pragma once

#include <string>

namespace unixbus {

bool isTopic(const std::string& topic);
bool isFilter(const std::string& filter);
bool matches(const std::string& filter, const std::string& topic);

}  // namespace unixbus
