// The transfer of a file on this machine that stands in for a server's answer with status 200.
#pragma once

#include <string>

#include "CurlState.h"
#include "Transfer.h"

namespace zav {

/// Appends the file to that of `context`, within its size limit, and reports the progress. Returns a libcurl result
/// code: CURLE_READ_ERROR if the file cannot be read. Throws std::system_error if the destination cannot be written.
int transferLocally(const std::string& path, Curl::State& client, const TransferContext& context);

}  // namespace zav
