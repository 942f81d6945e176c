#include "Output.h"

#include "Json.h"
#include "common/UrlSyntax.h"
#include "debug/Debug.h"

namespace zavctl {

void printJson(std::ostream& out, const Json::Value& object) { out << compactJson(object) << std::endl; }

void printFailure(std::ostream& out, std::ostream& err, bool json, const Failure& failure) {
    if (json) {
        Json::Value object;
        object["error"] = failure.name();
        object["reason"] = failure.what();
        printJson(out, object);
    } else {
        err << "zavctl: " << dbg::escapeControls(failure.what()) << std::endl;
    }
}

std::string withoutPassword(const std::string& url) { return common::withoutPassword(url); }

}  // namespace zavctl
