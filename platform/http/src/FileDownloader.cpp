#include "http/FileDownloader.h"

#include <strings.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "Credentials.h"
#include "Pace.h"
#include "PartialFile.h"
#include "ResumePlan.h"
#include "Transfer.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"
#include "http/UrlInfo.h"

namespace zav {

namespace {

constexpr unsigned mostRedirects = 5;
constexpr std::uint64_t mebibyte = 1024 * 1024;
constexpr const char* firmwareFolder = "/config/swupdate/";
constexpr std::uint64_t firmwareReserve = 16 * mebibyte;  // of its file system, left to the phone
constexpr std::uint64_t ordinaryLimit = 16 * mebibyte;

struct FolderLimit {
    const char* folder;
    std::uint64_t bytes;
};
constexpr std::array<FolderLimit, 3> folderLimits{{
    {"/var/volatile/provisioning/", 16 * mebibyte},
    {"/custom/certs/_storage/", 1 * mebibyte},
    {"/var/volatile/contacts/", 64 * mebibyte},
}};

bool isBelow(const std::string& path, const std::string& folder) { return path.compare(0, folder.size(), folder) == 0; }

std::uint64_t fixedLimit(const std::string& destination) {
    for (const FolderLimit& limit : folderLimits) {
        if (isBelow(destination, limit.folder)) return limit.bytes;
    }
    return ordinaryLimit;
}

std::uint64_t firmwareLimit(const PartialFile& file) {
    const std::uint64_t room = file.freeBytes() + file.size();
    return room > firmwareReserve ? room - firmwareReserve : 0;
}

bool isWeb(const std::string& url) {
    return strncasecmp(url.c_str(), "http://", 7) == 0 || strncasecmp(url.c_str(), "https://", 8) == 0;
}

// Basic tells the password to everybody on the way, so it needs TLS. The other two are what a phone has the means for.
unsigned long schemesFor(const UrlInfo& url) {
    return CURLAUTH_DIGEST | CURLAUTH_NTLM | (url.scheme() == "https" ? CURLAUTH_BASIC : 0UL);
}

// One call of downloadFile: its attempts, and what they have in common.
class Download {
 public:
    Download(Curl& curl, const Security& security, const std::shared_ptr<propertyapi::IPropertyApi>& properties,
             const UrlInfo& source, const std::string& destination)
        : curl_(curl),
          security_(security),
          properties_(properties),
          source_(source),
          firmware_(isBelow(destination, firmwareFolder)),
          file_(destination),
          limit_(firmware_ ? SizeLimit([this] { return firmwareLimit(file_); })
                           : SizeLimit([bytes = fixedLimit(destination)] { return bytes; })) {}

    int run() {
        int result = attempt();
        ResumePlan plan;
        while (firmware_ && ResumePlan::isBreak(result) && !validator_.empty() && keepsPace()) {
            const auto wait = plan.next(file_.size());
            if (!wait) break;
            dbg::Debug::info() << "Download broke off after " << file_.size() << " bytes, going on" << std::endl;
            std::this_thread::sleep_for(*wait);
            result = attempt();
        }
        if (result == CURLE_OK && status_ == 200) file_.commit();
        return result;
    }

 private:
    bool keepsPace() const {
        return zav::keepsPace(std::chrono::steady_clock::now() - begun_, static_cast<std::int64_t>(file_.size()));
    }

    // From the source to the server that has the file, or has the last word on it.
    int attempt() {
        Way way(source_);
        for (;;) {
            Transfer transfer(curl_, security_, file_, limit_, begun_);
            if (firmware_) transfer.useLargeBuffer();
            if (way.credentials) transfer.useCredentials(*way.credentials, way.schemes);
            if (!validator_.empty()) transfer.resume(validator_);
            const int result = transfer.run(way.url.text());
            noteStatus(transfer);
            if (result != CURLE_OK) return result;
            if (status_ == 401 && findCredentials(way, transfer.offeredSchemes())) continue;
            if (transfer.redirection().empty()) return result;
            if (++way.redirects > mostRedirects) return CURLE_TOO_MANY_REDIRECTS;
            if (!isWeb(transfer.redirection())) return CURLE_UNSUPPORTED_PROTOCOL;
            const UrlInfo next(transfer.redirection());
            if (way.url.scheme() == "https" && next.scheme() != "https") {
                dbg::Debug::warning() << "The server redirects from https to http, not followed" << std::endl;
                return CURLE_UNSUPPORTED_PROTOCOL;
            }
            follow(way, next);
        }
    }

    struct Way {
        explicit Way(const UrlInfo& from) : url(from) {}

        UrlInfo url;
        unsigned redirects = 0;
        bool elsewhere = false;  // has left the server where it began
        std::optional<Credentials> credentials;
        unsigned long schemes = 0;
    };

    // Redirects are followed here and not by libcurl: each step is checked like a URL of our own, and credentials go
    // no further than the server that they are for. Userinfo in a redirect goes nowhere, as in every URL.
    static void follow(Way& way, const UrlInfo& next) {
        if (!isSameServer(next, way.url) || next.scheme() != way.url.scheme()) {
            way.elsewhere = true;
            way.credentials.reset();
        }
        way.url = next;
    }

    // Only asked for by servers that want them: most downloads never touch these properties.
    bool findCredentials(Way& way, unsigned long offered) const {
        if (way.credentials || way.elsewhere) return false;
        way.credentials = credentialsFor(way.url, properties_);
        way.schemes = offered & schemesFor(way.url);
        if (!way.credentials || way.schemes != 0) return way.credentials.has_value();
        dbg::Debug::warning() << "The server asks for credentials in a way that would give them away, not sent"
                              << std::endl;
        return false;
    }

    void noteStatus(const Transfer& transfer) {
        // The rest of a file is the file; and an attempt that reached nobody leaves standing what was said before.
        const bool goneOn = !validator_.empty() && (transfer.status() == 206 || transfer.status() == 0);
        status_ = goneOn ? 200 : transfer.status();
        Transfer::publishStatus(curl_, status_);
        if (transfer.status() == 200) validator_ = transfer.validator();
    }

    Curl& curl_;
    const Security& security_;
    const std::shared_ptr<propertyapi::IPropertyApi>& properties_;
    const UrlInfo& source_;
    const bool firmware_;
    PartialFile file_;
    const SizeLimit limit_;
    const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();

    long status_ = 0;
    std::string validator_;  // of what the file holds, once a server has named it
};

}  // namespace

FileDownloader::FileDownloader(std::shared_ptr<Curl> curl, Security& security,
                               std::shared_ptr<propertyapi::IPropertyApi> properties)
    : curl_(std::move(curl)), security_(security), properties_(std::move(properties)) {}

int FileDownloader::downloadFile(const std::string& url, const std::string& destination) {
    Transfer::publishStatus(*curl_, 0);
    try {
        const UrlInfo source(formatUrl(url, properties_));
        if (!isWeb(source.text())) return CURLE_UNSUPPORTED_PROTOCOL;
        return Download(*curl_, security_, properties_, source, destination).run();
    } catch (const UrlException&) {
        return CURLE_URL_MALFORMAT;
    } catch (const propertyapi::PropertyException& exception) {
        dbg::Debug::warning() << "URL cannot be completed: " << exception.what() << std::endl;
        return CURLE_URL_MALFORMAT;
    } catch (const std::system_error& error) {
        dbg::Debug::error() << error.what() << std::endl;
        return CURLE_WRITE_ERROR;
    } catch (const std::bad_alloc&) {
        return CURLE_OUT_OF_MEMORY;
    }
}

}  // namespace zav
