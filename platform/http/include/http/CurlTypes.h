// Descriptions of result codes, for log lines and reports.
#pragma once

#include <string>

namespace zav {

/// The only status of a successful download.
constexpr long httpOk = 200;

struct CurlTypes {
    /// libcurl's description of a result code; "No error" for 0.
    static std::string getCurlErrorDescription(int code);

    /// "404 Not Found"; "0 No answer" for 0; the number alone if the status has no registered name.
    static std::string getHTTPCodeDescription(long code);
};

}  // namespace zav
