#include "explain/Explain.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "Core/Constants.h"
#include "Core/Pass.h"
#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "Core/Utils.h"
#include "catalogue/Catalogue.h"
#include "common/PathRoot.h"
#include "common/UrlSyntax.h"
#include "explain/Advice.h"
#include "explain/MemoryBus.h"
#include "explain/PhoneFiles.h"
#include "explain/PublishedFolder.h"
#include "explain/Recorder.h"
#include "http/CurlTypes.h"
#include "http/FormatUrl.h"
#include "lint/Source.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "security/Security.h"
#include "xml/Library.h"

namespace explain {

namespace {

using propertyservice::Catalogue;
using propertyservice::CatalogueKey;
using zav::constants;

// Stands for a server that the phone does not have.
constexpr char assumedServer[] = "http://server.example/";

bool isUrl(const std::string& source) { return source.find("://") != std::string::npos; }

// A server's URL up to the folder in which its first placeholder stands. A placeholder in the host's name stays, and
// one behind the path does not count.
std::string upToPlaceholder(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    std::size_t placeholder = std::string::npos;
    for (const char* one : {"%MACC", "%MACD", "%DVID"}) placeholder = std::min(placeholder, url.find(one, path));
    if (path == std::string::npos || placeholder > url.find_first_of("?#")) return url;
    return placeholder == std::string::npos ? url : url.substr(0, url.rfind('/', placeholder) + 1);
}

const CatalogueKey* find(const Catalogue& catalogue, const std::string& key) {
    const auto& keys = catalogue.keys();
    const auto found = std::lower_bound(keys.begin(), keys.end(), key,
                                        [](const CatalogueKey& one, const auto& wanted) { return one.key < wanted; });
    return found == keys.end() || found->key != key ? nullptr : &*found;
}

bool isVolatile(const CatalogueKey& key) { return key.definition->isVolatile || propertyservice::isState(key.key); }

// The values with which the pass begins. Adds a note for each that cannot be used.
std::map<std::string, std::string> beginning(const Request& request, const Catalogue& catalogue,
                                             std::vector<std::string>& notes) {
    std::map<std::string, std::string> values;
    for (const auto& [key, value] : request.properties) {
        const CatalogueKey* const known = find(catalogue, key);
        const std::string objection =
            known == nullptr ? "the catalogue has no such key" : known->definition->rule(value);
        if (objection.empty()) {
            values[key] = value;
        } else {
            notes.push_back(key + ": " + objection + "; " +
                            (known == nullptr ? "left out" : "its default is used, as on a phone"));
        }
    }
    std::string& server = values[constants.provisioningServerKey];
    if (isUrl(request.source)) {
        server = request.source;
    } else if (server.empty()) {
        server = request.base.empty() ? assumedServer : request.base;
        notes.push_back(constants.provisioningServerKey + " is not set; " + server + " stands for it");
    }
    std::string& state = values[constants.provisioningStateKey];
    if (state.find(constants.requestWord) == std::string::npos) state = constants.requestWord;
    return values;
}

class PhoneInMemory {
 public:
    PhoneInMemory(const Request& request, std::vector<std::string>& notes)
        : catalogue_(Catalogue::load(request.catalogue)),
          settings_(lint::Settings::of(catalogue_)),
          keyFile_(request.keyFile),
          values_(beginning(request, catalogue_, notes)),
          files_(request.keyFile),
          recorder_([this, all = request.showSecrets](
                        const std::string& key, const std::string& value) { return all ? value : masked(key, value); },
                    [this](std::string text) { return files_.withPhonePaths(std::move(text)); }),
          store_(values_),
          bus_(std::make_shared<MemoryBus>(catalogue_, store_)),
          properties_(propertyapi::PropertyApiBuilder::getPropertyApi(bus_, constants.clientName)),
          security_(properties_) {
        for (const auto& [key, value] : values_) {
            const CatalogueKey* const known = find(catalogue_, key);
            if (known != nullptr && isVolatile(*known)) begin(key, value, notes);
        }
        if (!isUrl(request.source)) serve(request, notes);
    }

    /// Runs one pass to its end.
    void provision(Explanation& explanation) {
        zav::lastHttpCode = 0;
        zav::setCurrentProvisioningVersion({});
        Explanation discarded;
        recorder_.moveInto(discarded);  // what the preparation logged
        bus_->report([this](const propertyprotocol::Change& change, const std::string& before) {
            recorder_.written(change, before);
        });
        bool started = true;
        try {
            zav::ProvisioningWorker worker(properties_, client(), security_);
            worker.startProvisioning("");
        } catch (const zav::UrlException& error) {
            started = false;
            recorder_.passNotStarted(error.what());
        }
        noteDefaults(explanation.notes);
        recorder_.moveInto(explanation);
        const auto address = values_.find(constants.macAddressKey);
        addAdvice(explanation, {settings_, keyFile_, address == values_.end() ? "" : address->second,
                                [](const std::string& path) { return common::rooted(path); }});
        const std::string status = bus_->valueOf(constants.provisioningStateKey);
        if (!started || status == values_.at(constants.provisioningStateKey)) return;
        explanation.status = status;
        explanation.httpCode = bus_->valueOf(constants.provisioningHttpErrorCodeKey);
    }

    std::string urlOfInitialFile() {
        try {
            return initialUrl().text();
        } catch (const zav::UrlException&) {
            return values_.at(constants.provisioningServerKey);
        }
    }

 private:
    // A key that the catalogue lacks may be a misspelt secret.
    std::string masked(const std::string& key, const std::string& value) const {
        const CatalogueKey* const known = find(catalogue_, key);
        const bool isSecret = known != nullptr ? known->definition->isSecret() : lint::soundsSecret(key);
        if (isSecret) return value.empty() ? "" : "***";
        return value.find('@') == std::string::npos ? value : withoutPasswordInUrl(value);
    }
    static std::string withoutPasswordInUrl(const std::string& value) {
        return value.find("://") == std::string::npos ? value : common::withoutPassword(value);
    }

    zav::UrlInfo initialUrl() const {
        const zav::UrlInfo url = zav::makeUrlInfo(values_.at(constants.provisioningServerKey));
        return zav::UrlInfo(zav::formatUrl(url.text(), properties_));
    }

    zav::UrlInfo baseUrl(const std::string& given) const {
        const std::string url = given.empty() ? upToPlaceholder(values_.at(constants.provisioningServerKey)) : given;
        return zav::UrlInfo(zav::formatUrl(url, properties_));
    }

    void serve(const Request& request, std::vector<std::string>& notes) {
        std::optional<zav::UrlInfo> base;
        try {
            base = baseUrl(request.base);
        } catch (const zav::UrlException&) {
            if (!request.base.empty()) throw ExplainException(request.base + ": is not a URL that the phone accepts");
            base.emplace(assumedServer);
        }
        try {
            folder_.emplace(request.source, initialUrl(), *base);
        } catch (const zav::UrlException&) {
            const zav::UrlInfo assumed(assumedServer);
            folder_.emplace(request.source, assumed, assumed);  // no pass starts, but the source is checked
            return;
        }
        notes.push_back(folder_->folder() + " stands for " + folder_->url() +
                        (request.base.empty() ? "; --base URL changes that" : ""));
    }

    std::shared_ptr<zav::Curl> client() {
        zav::CurlSettings settings;
        settings.sync = false;
        if (folder_) settings.standIn = [this](const std::string& url) { return folder_->answer(url); };
        settings.onEnd = [this](const std::string& url, int result, long status) { onDownload(url, result, status); };
        return std::make_shared<zav::Curl>(settings);
    }

    void onDownload(const std::string& url, int result, long status) {
        std::string place;
        if (folder_) {
            place = folder_->answer(url).file;
            if (place.empty())
                place = folder_->isElsewhere(url) ? "on another server, not asked" : "not published here";
        }
        std::string outcome = status == 0 ? "" : zav::CurlTypes::getHTTPCodeDescription(status);
        if (result != 0) outcome += (outcome.empty() ? "" : ", ") + zav::CurlTypes::getCurlErrorDescription(result);
        recorder_.fileRequested(url, place, outcome);
    }

    void begin(const std::string& key, const std::string& value, std::vector<std::string>& notes) {
        try {
            properties_->set(key, "explain", value);
        } catch (const propertyapi::PropertyException& error) {
            notes.emplace_back(error.what());
        }
    }

    // What a workstation does not know of the phone, if the pass read it.
    void noteDefaults(std::vector<std::string>& notes) const {
        std::set<std::string> read = bus_->keysRead();
        // Every pass reads these, and they decide nothing.
        for (const std::string& key :
             {constants.settingsVersionKey, constants.customVersionKey, constants.debugLevelMaskKey}) {
            read.erase(key);
        }
        if (!recorder_.hasFirmwareDecision()) read.erase(constants.softwareVersionKey);
        for (const std::string& key : read) {
            const CatalogueKey* const known = find(catalogue_, key);
            if (known == nullptr || isVolatile(*known) || values_.count(key) > 0) continue;
            notes.push_back(key + " is taken to be \"" + known->definition->defaultValue +
                            "\", the catalogue's default");
        }
    }

    const Catalogue catalogue_;
    const std::shared_ptr<const lint::Settings> settings_;
    const std::string keyFile_;
    std::map<std::string, std::string> values_;
    const PhoneFiles files_;
    const zav::xml::Library xmlLibrary_;
    Recorder recorder_;
    MemoryStore store_;
    const std::shared_ptr<MemoryBus> bus_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    zav::Security security_;
    std::optional<PublishedFolder> folder_;
};

}  // namespace

Explanation explain(const Request& request) {
    Explanation explanation;
    PhoneInMemory phone(request, explanation.notes);
    explanation.url = phone.urlOfInitialFile();
    phone.provision(explanation);
    return explanation;
}

}  // namespace explain
