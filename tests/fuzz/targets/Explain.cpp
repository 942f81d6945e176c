// A whole pass of a phone in memory, and the report about it. The first line is the server's URL, the second the
// folder's, and the rest the initial file, which may be encrypted with the key "phrase".
#include "explain/Explain.h"

#include <sstream>
#include <string>

#include "explain/Report.h"
#include "fuzz/InputFile.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "propertyprotocol/Utf8.h"

namespace fuzz {

namespace {

constexpr char salted[] = "Salted__";

}  // namespace

void explain(const std::string& input) {
    const auto [server, rest] = splitLine(input);
    const auto [base, file] = splitLine(rest);
    if (base.find('\0') != std::string::npos) return;  // an argument of a command has none
    ::explain::Request request;
    request.source = inputFile(file);
    request.base = base;
    if (file.rfind(salted, 0) == 0) request.keyFile = keyFile();
    request.catalogue = CATALOGUE;
    request.properties = {{"NET.MAC.Address", "02:00:5E:10:00:01"}, {"System.Provision.ProvisioningServer", server}};
    try {
        const ::explain::Explanation explanation = ::explain::explain(request);
        std::ostringstream text;
        ::explain::print(text, explanation);
        promise(propertyprotocol::isUtf8(text.str()), "an explanation is UTF-8");
        promise(text.str().find("zavctl-explain") == std::string::npos, "paths are the phone's");
        promise(::explain::toJson(explanation).isObject(), "an explanation is an object");
        const bool known = explanation.status.empty() || explanation.status == "success" ||
                           explanation.status == "partSuccess" || explanation.status == "fail";
        promise(known, "a pass has a result");
    } catch (const ::explain::ExplainException& error) {
        promise(*error.what() != '\0', "a refusal has a reason");
    }
}

}  // namespace fuzz
