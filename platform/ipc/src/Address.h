// Resolves a broker's host to the numeric addresses to try in turn.
#pragma once

#include <string>
#include <vector>

#include "ipc/Address.h"

namespace ipc {

/// The numeric addresses of the host, in the order to try. If it has none, the result is empty and `failure` is set.
std::vector<std::string> resolve(const Address& address, std::string& failure);

}  // namespace ipc
