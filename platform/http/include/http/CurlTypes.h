// Result codes of transfers as text for log lines and reports.
#pragma once

#include <string>

namespace zav {

/// The only status of a successful download.
constexpr long httpOk = 200;

struct CurlTypes {
    /// libcurl's own description of a result code, "No error" for 0.
    static std::string getCurlErrorDescription(int code);

    /// "404 Not Found"; "0 No answer" when there was none; the number alone for a code without a registered name.
    static std::string getHTTPCodeDescription(long code);
};

}  // namespace zav
