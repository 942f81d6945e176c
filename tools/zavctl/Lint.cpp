#include "lint/Lint.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>

#include "BaseUrl.h"
#include "CatalogueFile.h"
#include "Lint.h"
#include "Output.h"
#include "Session.h"
#include "common/TemporaryFolder.h"
#include "debug/Debug.h"
#include "http/CurlTypes.h"
#include "http/FileDownloader.h"
#include "lint/PhoneProperties.h"
#include "lint/Print.h"
#include "lint/Rules.h"
#include "lint/Settings.h"
#include "lint/Site.h"
#include "lint/Source.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

constexpr char serverKey[] = "System.Provision.ProvisioningServer";
constexpr char macAddressKey[] = "NET.MAC.Address";

// Downloads as the phone does, into a private folder.
class Downloads {
 public:
    Downloads(const std::string& folder, const lint::Phone& phone)
        : file_(folder + "/downloaded.xml"),
          properties_(std::make_shared<lint::PhoneProperties>(phone)),
          security_(properties_),
          curl_(std::make_shared<zav::Curl>(zav::CurlSettings{limit, limit})) {}

    lint::Fetched fetch(const std::string& url) {
        zav::FileDownloader downloader(curl_, security_, properties_);
        const int result = downloader.downloadFile(url, file_);
        const long status = curl_->getHttpCode();
        if (result != 0)
            return {std::nullopt, "cannot be downloaded: " + zav::CurlTypes::getCurlErrorDescription(result)};
        if (status != 200) {
            return {std::nullopt, "cannot be downloaded: HTTP " + zav::CurlTypes::getHTTPCodeDescription(status)};
        }
        std::ifstream stream(file_, std::ios::binary);
        std::string bytes(std::istreambuf_iterator<char>(stream), {});
        ::unlink(file_.c_str());
        return {std::move(bytes), ""};
    }

 private:
    static constexpr std::chrono::seconds limit{10};

    const std::string file_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    zav::Security security_;
    const std::shared_ptr<zav::Curl> curl_;
};

std::shared_ptr<const lint::Settings> settingsOf(Session& session) {
    auto settings = std::make_shared<lint::Settings>();
    const Json::Value request = toObject({{"prefix", ""}});
    for (const Json::Value& json : session.requestAll(propertyprotocol::describeTopic, request, "definitions")) {
        settings->add(json);
    }
    return settings;
}

// The phone's keys, and of its values those that decide.
void askPhone(const Environment& environment, const Options& options, lint::Options& lintOptions) {
    Session session(environment, options.host);
    lintOptions.settings = settingsOf(session);
    lint::Phone phone;
    for (const char* prefix : {macAddressKey, "FunctionKeys.", "System.General.DeviceID", "System.Provision."}) {
        for (const propertyapi::Property& property : session.list(prefix)) phone.values[property.key] = property.value;
    }
    phone.macAddress = phone.values[macAddressKey];
    if (lintOptions.baseUrl.empty()) lintOptions.baseUrl = phone.values[serverKey];
    lintOptions.phone = std::move(phone);
}

// For downloads without a phone: no credentials.
lint::Phone nobody(const std::string& baseUrl) {
    lint::Phone phone;
    phone.values = {{serverKey, baseUrl},
                    {"System.Provision.FactoryAuthUsername", ""},
                    {"System.Provision.FactoryAuthPassword", ""}};
    return phone;
}

// A password in it is sent to this server only, as a phone does.
std::string serverOf(const lint::Options& options, const std::vector<std::string>& paths) {
    if (!options.baseUrl.empty()) return options.baseUrl;
    const auto url = std::find_if(paths.begin(), paths.end(), lint::isUrl);
    return url == paths.end() ? "" : *url;
}

Json::Value toJson(const lint::Finding& finding) {
    Json::Value json = toObject({{"file", lint::validUtf8(finding.file)},
                                 {"level", lint::nameOf(finding.level)},
                                 {"rule", finding.rule},
                                 {"message", lint::validUtf8(finding.message)},
                                 {"fix", lint::validUtf8(finding.fix)}});
    if (finding.line != 0) json["line"] = finding.line;
    if (finding.column != 0) json["column"] = finding.column;
    return json;
}

void print(const Environment& environment, const lint::Report& report, bool json) {
    if (json) {
        Json::Value findings(Json::arrayValue);
        for (const lint::Finding& finding : report.findings) findings.append(toJson(finding));
        printJson(environment.out,
                  toObject({{"files", Json::Value(static_cast<Json::UInt64>(report.files))},
                            {"errors", Json::Value(static_cast<Json::UInt64>(report.count(lint::Level::error)))},
                            {"warnings", Json::Value(static_cast<Json::UInt64>(report.count(lint::Level::warning)))},
                            {"notes", Json::Value(static_cast<Json::UInt64>(report.count(lint::Level::note)))},
                            {"findings", findings}}));
        return;
    }
    for (const lint::Finding& finding : report.findings) environment.out << lint::toText(finding);
    environment.out << lint::summaryOf(report) << std::endl;
}

void printRules(const Environment& environment, bool json) {
    Json::Value all(Json::arrayValue);
    for (const lint::Rule& rule : lint::rules()) {
        if (json) {
            all.append(toObject({{"rule", rule.id},
                                 {"level", lint::nameOf(rule.level)},
                                 {"sentence", rule.sentence},
                                 {"fix", rule.fix}}));
        } else {
            environment.out << rule.id << " (" << lint::nameOf(rule.level) << "): " << rule.sentence
                            << "\n  fix: " << rule.fix << "\n";
        }
    }
    if (json) printJson(environment.out, toObject({{"rules", all}}));
    environment.out.flush();
}

}  // namespace

ExitCode lintFiles(const Environment& environment, const Options& options, const LintOptions& lintOptions,
                   const std::vector<std::string>& paths) {
    dbg::Debug::setDebugLevelMask("0");  // the findings say what the daemon's code would log
    if (lintOptions.rules) {
        printRules(environment, options.json);
        return ExitCode::done;
    }
    const bool hasUrl = std::any_of(paths.begin(), paths.end(), lint::isUrl);
    const bool mayDownload =
        !lintOptions.offline && (hasUrl || !lintOptions.baseUrl.empty() || !lintOptions.phone.empty());
    std::unique_ptr<common::TemporaryFolder> folder;
    if (mayDownload) folder = std::make_unique<common::TemporaryFolder>("zavctl-lint");
    try {
        lint::Options given;
        given.keyFile = lintOptions.keyFile;
        if (given.keyFile == LintOptions().keyFile && ::access(given.keyFile.c_str(), R_OK) != 0) given.keyFile.clear();
        given.baseUrl = folderUrl(lintOptions.baseUrl);
        if (!lintOptions.phone.empty()) askPhone(environment, options, given);
        if (given.settings == nullptr || !lintOptions.catalogue.empty()) {
            given.settings =
                lint::Settings::load(lintOptions.catalogue.empty() ? defaultCatalogue() : lintOptions.catalogue);
        }
        std::unique_ptr<Downloads> downloads;
        if (folder != nullptr) {
            if (folder->path().empty()) throw Failure(ExitCode::failed, "failed", "no folder can be made in /tmp");
            downloads =
                std::make_unique<Downloads>(folder->path(), given.phone.value_or(nobody(serverOf(given, paths))));
            given.fetch = [&downloads](const std::string& url) { return downloads->fetch(url); };
        }
        const lint::Report report = lint::lintPaths(paths, given);
        print(environment, report, options.json);
        return report.count(lint::Level::error) == 0 ? ExitCode::done : ExitCode::failed;
    } catch (const lint::LintException& error) {
        throw Failure(ExitCode::usage, "usage", error.what());
    }
}

}  // namespace zavctl
