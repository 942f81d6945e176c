#include <unistd.h>

#include "BaseUrl.h"
#include "CatalogueFile.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"
#include "SettingsFile.h"
#include "explain/Explain.h"
#include "explain/Report.h"

namespace zavctl {

namespace {

constexpr char phonesKey[] = "/etc/zav.d/key";
constexpr char running[] = "running";

// The session ends here: the explanation begins while this process has no other thread that logs.
std::map<std::string, std::string> valuesOf(const Environment& environment, const Options& options,
                                            const std::string& phone) {
    std::map<std::string, std::string> values;
    if (phone == running) {
        Session session(environment, options.host);
        for (const propertyapi::Property& one : session.list("")) values[one.key] = one.value;
    } else if (!phone.empty()) {
        for (const auto& [key, value] : readProperties(phone)) {
            if (value) values[key] = *value;
        }
    }
    return values;
}

}  // namespace

ExitCode explain(const Environment& environment, const Options& options, const std::string& source,
                 const ExplainOptions& phone) {
    ::explain::Request request;
    request.source = source;
    request.base = folderUrl(phone.base);
    request.properties = valuesOf(environment, options, phone.as);
    request.catalogue = phone.catalogue.empty() ? defaultCatalogue() : phone.catalogue;
    request.keyFile = phone.key.empty() && ::access(phonesKey, R_OK) == 0 ? phonesKey : phone.key;
    request.showSecrets = options.showSecrets;
    if (!phone.key.empty() && ::access(phone.key.c_str(), R_OK) != 0) {
        throw Failure(ExitCode::failed, "bad-file", phone.key + ": cannot be read");
    }
    const ::explain::Explanation explanation = ::explain::explain(request);
    if (options.json) {
        printJson(environment.out, ::explain::toJson(explanation));
    } else {
        ::explain::print(environment.out, explanation);
    }
    return ::explain::succeeds(explanation) ? ExitCode::done : ExitCode::failed;
}

}  // namespace zavctl
