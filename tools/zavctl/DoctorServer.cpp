#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "Core/GlobalConfig.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "Doctor.h"
#include "common/Quote.h"
#include "common/Release.h"
#include "http/CurlTypes.h"
#include "http/FileDownloader.h"
#include "http/FormatUrl.h"
#include "xml/XMLParser.h"

namespace zavctl {

namespace {

using Step = zav::ServerProbe::Step;

constexpr std::chrono::seconds connectTime{5};  // name lookup, TCP and TLS together
constexpr char setServer[] = "zavctl set System.Provision.ProvisioningServer https://HOST/FOLDER/";

Finding checkUrl(Examination& examination) {
    if (!examination.serviceAnswers) return notChecked("no property service");
    const std::string configured = examination.properties->get("System.Provision.ProvisioningServer");
    if (configured.empty()) return error("none is set", setServer);
    try {
        const zav::UrlInfo url = zav::makeUrlInfo(zav::formatUrl(configured, examination.properties));
        if (url.scheme() != "http" && url.scheme() != "https") {
            return error(url.text() + " is neither http nor https", setServer);
        }
        examination.url = url;
        return ok(url.text());
    } catch (const zav::UrlException&) {
        return error("the value of System.Provision.ProvisioningServer is not a URL", setServer);
    }
}

// `good` is what to say if the step worked.
Finding checkStep(const Examination& examination, Step step, const std::string& good, const char* fix) {
    if (!examination.url) return notChecked("no URL");
    if (examination.probe.failed < step) return notChecked("no connection to the server");
    return examination.probe.failed == step ? error(examination.probe.reason, fix) : ok(good);
}

Finding checkName(Examination& examination) {
    if (!examination.url) return notChecked("no URL");
    examination.probe = zav::probeServer(*examination.url, zav::Security(examination.properties), connectTime);
    return checkStep(examination, Step::nameLookup, examination.url->host(),
                     "Correct the URL, or look at the name server in /etc/resolv.conf.");
}

Finding checkConnection(Examination& examination) {
    return checkStep(examination, Step::connection, examination.probe.address,
                     "Start the server, correct the port in the URL, or look at routes and firewalls.");
}

Finding checkCertificate(Examination& examination) {
    const auto& expires = examination.probe.expires;
    return checkStep(examination, Step::tls,
                     expires ? "trusted until " + common::dateText(*expires) : "none: it is http",
                     "Renew it on the server, or add its authority to /custom/certs/ca-bundle.pem.");
}

Finding checkDownload(Examination& examination) {
    if (!examination.url || examination.probe.failed != Step::none) return notChecked("no connection to the server");
    if (examination.folder.empty()) return notChecked("no temporary folder can be made in /tmp");
    const auto curl = std::make_shared<zav::Curl>(zav::CurlSettings{connectTime, connectTime});
    curl->stopWith(examination.deadline);
    zav::Security security(examination.properties);
    security.reloadDeviceIdentity();
    zav::FileDownloader downloader(curl, security, examination.properties);
    const int result = downloader.downloadFile(examination.url->text(), examination.file());
    const long status = curl->getHttpCode();
    const std::string http = status == 0 ? "no answer" : "HTTP " + zav::CurlTypes::getHTTPCodeDescription(status);
    examination.downloaded = result == 0 && status == zav::httpOk;
    if (examination.downloaded) return ok(http);
    if (examination.deadline->isOverdue()) return error("too slow, " + http, "Look at the server and the network.");
    if (result != 0) {
        return error(zav::CurlTypes::getCurlErrorDescription(result) + ", " + http, "Look at the server's log.");
    }
    if (status == 401 || status == 403) {
        return error(http,
                     "Set System.Provision.FactoryAuthUsername and FactoryAuthPassword; over http they are sent "
                     "to a server that asks for Digest only.");
    }
    return error(http, status == 404 ? "Publish the file under that URL." : "Look at the server's log.");
}

// The parser has refused the document, for one of these reasons.
Finding refused(zav::XMLReader& reader, const std::string& macAddress) {
    const std::map<std::string, std::string> root = reader.attributes();
    const auto differs = [&root](const std::string& name, const std::string& wanted) {
        const auto found = root.find(name);
        return error(name + (found == root.end() ? " is missing" : " is " + quote(found->second)) + ", not " + wanted,
                     "Correct the root element of the file on the server.");
    };
    const auto is = [&root](const char* name, const std::string& least, const std::string& most) {
        const auto found = root.find(name);
        return found != root.end() && found->second >= least && found->second <= most;
    };
    const std::string& product = zav::GlobalConfig::productIdentifier;
    const std::string& format = zav::GlobalConfig::fileFormatVersion;
    if (reader.name() != "provisioning")
        return error("the root element is " + quote(reader.name()), "Name it provisioning.");
    if (!is("productID", product, product)) return differs("productID", quote(product));
    if (!is("version", "1.0", format)) return differs("version", "'1.0' to " + quote(format));
    return differs("macAddress", quote(macAddress) + " as on this phone");
}

Finding checkFile(Examination& examination) {
    if (!examination.downloaded) return notChecked("there is no file");
    std::string begin(8, '\0');
    std::ifstream(examination.file()).read(begin.data(), static_cast<std::streamsize>(begin.size()));
    const bool encrypted = begin == "Salted__";
    if (encrypted && ::access("/etc/zav.d/key", R_OK) != 0 && errno == EACCES) {
        return notChecked("it is encrypted, and this user cannot read the key");
    }
    const zav::Pass pass(nullptr, examination.deadline);  // the parser needs one
    zav::XMLParser reader;
    zav::ProvisioningFileParser parser(examination.file(), reader, examination.properties);
    if (parser.parseInitialFile()) return ok(encrypted ? "yes, decrypted" : "yes, not encrypted");
    if (!reader.name().empty()) return refused(reader, examination.macAddress);
    if (!encrypted) return error("it is not an acceptable XML file", "Correct it: zavctl lint URL shows the place.");
    return error("it cannot be decrypted with this phone's key",
                 "Encrypt it with the pass phrase in /etc/zav.d/key, by openssl enc -aes-128-cbc.");
}

}  // namespace

std::vector<Check> serverChecks() {
    return {{"server URL", checkUrl},
            {"server name", checkName},
            {"server connection", checkConnection},
            {"server certificate", checkCertificate},
            {"initial file", checkDownload},
            {"file for this phone", checkFile}};
}

}  // namespace zavctl
