// A whole pass of a phone in memory, and the report about it. The first line is the server's URL, the second the
// folder's, and the rest the initial file, which may be encrypted with
// the pass phrase "phrase".
#include "explain/Explain.h"

#include <json/reader.h>
#include <json/writer.h>

#include <fstream>
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
constexpr char folder[] = "zavctl-explain";  // libFuzzer finds its name in comparisons

// The catalogue without most settings: a pass reads it anew, which would take most of the time.
std::string shortCatalogue() {
    std::ifstream file(CATALOGUE);
    Json::Value catalogue;
    file >> catalogue;
    for (const std::string& key : catalogue["keys"].getMemberNames()) {
        bool kept = false;
        for (const char* prefix :
             {"System.Provision", "System.General", "System.Debug.LevelMask.ZAV", "NET.MAC", "State.Provisioning",
              "State.FirmwareUpdate", "State.Security", "State.LocalPhoneBook", "Security", "FirmwareManagment",
              "FunctionKeys", "PhoneUI.Keys", "Time"}) {
            kept = kept || key.rfind(prefix, 0) == 0;
        }
        if (!kept) catalogue["keys"].removeMember(key);
    }
    return Json::writeString(Json::StreamWriterBuilder(), catalogue);
}

}  // namespace

void explain(const std::string& input) {
    static const TemporaryFile key("phrase");
    static const TemporaryFile catalogue(shortCatalogue());
    const auto [server, rest] = splitLine(input);
    const auto [base, file] = splitLine(rest);
    if (base.find('\0') != std::string::npos) return;  // an argument of a command has none
    ::explain::Request request;
    request.source = inputFile(file);
    request.base = base;
    if (file.rfind(salted, 0) == 0) request.keyFile = key.path();
    request.catalogue = catalogue.path();
    request.properties = {{"NET.MAC.Address", "02:00:5E:10:00:01"}, {"System.Provision.ProvisioningServer", server}};
    try {
        const ::explain::Explanation explanation = ::explain::explain(request);
        std::ostringstream text;
        ::explain::print(text, explanation);
        promise(propertyprotocol::isUtf8(text.str()), "an explanation is UTF-8");
        promise(text.str().find(folder) == std::string::npos || input.find(folder) != std::string::npos,
                "paths are the phone's, but for what the input itself says");
        promise(::explain::toJson(explanation).isObject(), "an explanation is an object");
        const bool known = explanation.status.empty() || explanation.status == "success" ||
                           explanation.status == "partSuccess" || explanation.status == "fail";
        promise(known, "a pass has a result");
    } catch (const ::explain::ExplainException& error) {
        promise(*error.what() != '\0', "a refusal has a reason");
    }
}

}  // namespace fuzz
