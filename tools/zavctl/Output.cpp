#include "Output.h"

#include <algorithm>

#include "Json.h"
#include "debug/Debug.h"

namespace zavctl {

void printJson(std::ostream& out, const Json::Value& object) { out << compactJson(object) << std::endl; }

void printFailure(std::ostream& out, std::ostream& err, bool json, const Failure& failure) {
    if (json) {
        Json::Value object;
        object["error"] = failure.word();
        object["reason"] = failure.what();
        printJson(out, object);
    } else {
        err << "zavctl: " << dbg::escapeControls(failure.what()) << std::endl;
    }
}

std::string withoutPassword(const std::string& url) {
    const std::string::size_type scheme = url.find("://");
    const std::string::size_type start = scheme == std::string::npos ? 0 : scheme + 3;
    const std::string::size_type end = std::min(url.find_first_of("/?#", start), url.size());
    const std::string::size_type at = url.rfind('@', end == 0 ? 0 : end - 1);
    const std::string::size_type colon = url.find(':', start);
    if (at == std::string::npos || at < start || colon == std::string::npos || colon > at) return url;
    return url.substr(0, colon + 1) + "***" + url.substr(at);
}

}  // namespace zavctl
