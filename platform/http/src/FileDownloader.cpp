#include "http/FileDownloader.h"

#include <strings.h>

#include <new>
#include <system_error>
#include <utility>

#include "Credentials.h"
#include "CurlState.h"
#include "DownloadFolders.h"
#include "LocalTransfer.h"
#include "PartialFile.h"
#include "ResumePlan.h"
#include "Transfer.h"
#include "common/Release.h"
#include "debug/Debug.h"
#include "http/CurlTypes.h"
#include "http/FormatUrl.h"
#include "http/UrlInfo.h"

namespace zav {

namespace {

constexpr unsigned maxRedirects = 5;
constexpr std::uint64_t firmwareReserve = 16 * mebibyte;  // left free on the file system

bool isHttpUrl(const std::string& url) {
    return strncasecmp(url.c_str(), "http://", 7) == 0 || strncasecmp(url.c_str(), "https://", 8) == 0;
}

// One call of downloadFile: retries interrupted attempts, follows redirects and finds credentials.
class Download {
 public:
    /// All arguments must outlive this object. Throws std::system_error if the destination cannot be written.
    Download(Curl::State& client, const Security& security,
             const std::shared_ptr<propertyapi::IPropertyApi>& properties, const UrlInfo& source,
             const std::string& destination);

    /// Runs the download and returns a libcurl result code. An interrupted firmware transfer is retried: it is resumed
    /// if the server sent a strong validator, else started again. Throws std::system_error if the file cannot be
    /// written, and UrlException for a redirect to an invalid URL.
    int run();

 private:
    // The current request of an attempt.
    struct Hop {
        explicit Hop(const UrlInfo& first) : url(first) {}

        UrlInfo url;
        unsigned redirects = 0;
        bool moved = false;  // a redirect has left the server or the protocol of the first hop
        std::optional<Credentials> credentials;
        unsigned long schemes = 0;
    };

    int attempt();
    int attemptLocally();
    bool mayRetry(int result) const;
    bool waitForRetry(std::chrono::seconds pause);
    std::uint64_t limit() const;
    std::shared_ptr<const DeviceIdentity> identityFor(const UrlInfo& url);
    void follow(Hop& hop, const UrlInfo& next) const;
    bool addCredentials(Hop& hop, unsigned long offered) const;
    void logUnsetClock(int result) const;
    void record(const Transfer& transfer);

    // Constant after construction.
    Curl::State& client_;
    const Security& security_;
    const std::shared_ptr<propertyapi::IPropertyApi>& properties_;
    const UrlInfo& source_;
    const FileLimit fixedLimit_;  // none for firmware, whose interrupted transfers are retried

    PartialFile file_;
    TransferContext context_;
    long status_ = 0;
    bool started_ = false;     // there was a response with the file
    bool mismatch_ = false;    // the last response did not continue the file
    ResumePoint resumePoint_;  // of the bytes in the file
    bool serverRead_ = false;
    std::optional<UrlInfo> configuredServer_;
};

Download::Download(Curl::State& client, const Security& security,
                   const std::shared_ptr<propertyapi::IPropertyApi>& properties, const UrlInfo& source,
                   const std::string& destination)
    : client_(client),
      security_(security),
      properties_(properties),
      source_(source),
      fixedLimit_(limitOf(destination)),
      file_(destination),
      context_{file_, [this] { return limit(); }, source.fileName(), !fixedLimit_, client.settings.steadyNow()} {}

std::uint64_t Download::limit() const {
    if (fixedLimit_) return *fixedLimit_;
    const std::uint64_t available = file_.freeBytes() + file_.size();
    return available > firmwareReserve ? available - firmwareReserve : 0;
}

int Download::run() {
    int result = attempt();
    ResumePlan plan;
    while (mayRetry(result)) {
        const auto pause = plan.next(file_.size());
        if (!pause || !waitForRetry(*pause)) break;
        result = attempt();
    }
    if (result == CURLE_OK && status_ == httpOk) {
        file_.commit(client_.settings.sync ? PartialFile::Sync::yes : PartialFile::Sync::no);
    }
    logUnsetClock(result);
    return result;
}

bool Download::mayRetry(int result) const {
    return !fixedLimit_ && started_ && (mismatch_ || ResumePlan::isRetryable(result)) &&
           context_.keepsPace(client_.settings.steadyNow(), 0);
}

// Returns false if the process is shutting down.
bool Download::waitForRetry(std::chrono::seconds pause) {
    const bool resumable = !mismatch_ && !resumePoint_.version.strongValidator().empty();
    const std::string when = pause.count() == 0 ? "" : " in " + std::to_string(pause.count()) + " s";
    if (mismatch_) {
        dbg::Debug::info() << "The server's answer does not continue the file, starting again" << when << std::endl;
    } else {
        dbg::Debug::info() << "Download broke off after " << file_.size() << " bytes, "
                           << (resumable ? "going on" : "starting again") << when << std::endl;
    }
    if (!resumable) {
        file_.restart();
        resumePoint_ = ResumePoint();
    }
    return !client_.stopSignal()->waitFor(pause);
}

// Follows redirects from the source to the final response.
int Download::attempt() {
    if (client_.settings.standIn) return attemptLocally();
    Hop hop(source_);
    for (;;) {
        Transfer transfer(client_, security_, context_, identityFor(hop.url));
        if (hop.credentials) transfer.useCredentials(*hop.credentials, hop.schemes);
        // A validator is valid for its URL only.
        if (file_.size() != 0 && hop.url.text() == resumePoint_.url) transfer.resume(resumePoint_);
        const int result = transfer.run(hop.url.text());
        record(transfer);
        if (result != CURLE_OK) return result;
        if (status_ == httpUnauthorized && addCredentials(hop, transfer.offeredSchemes())) continue;
        if (transfer.redirection().empty()) return result;
        if (++hop.redirects > maxRedirects) return CURLE_TOO_MANY_REDIRECTS;
        if (!isHttpUrl(transfer.redirection())) return CURLE_UNSUPPORTED_PROTOCOL;
        const UrlInfo next(transfer.redirection());
        if (hop.url.scheme() == "https" && next.scheme() != "https") {
            dbg::Debug::warning() << "The server redirects from https to http, not followed" << std::endl;
            return CURLE_UNSUPPORTED_PROTOCOL;
        }
        follow(hop, next);
    }
}

int Download::attemptLocally() {
    const LocalAnswer answer = client_.settings.standIn(source_.text());
    client_.httpCode = status_ = answer.status;
    return answer.status == httpOk ? transferLocally(answer.file, client_, context_) : CURLE_OK;
}

// Only the configured server learns who the phone is. Its URL is read once, so that an outage between two attempts does
// not turn a resumable download into one without the certificate.
std::shared_ptr<const DeviceIdentity> Download::identityFor(const UrlInfo& url) {
    auto identity = url.scheme() == "https" ? security_.deviceIdentity() : nullptr;
    if (identity == nullptr) return nullptr;
    if (!serverRead_) configuredServer_ = configuredServer(properties_);
    serverRead_ = true;
    return configuredServer_ && isSameServer(url, *configuredServer_) ? identity : nullptr;
}

// libcurl does not follow the redirects, so that each URL is checked, and credentials are not sent to another server.
// Userinfo in a redirect is ignored.
void Download::follow(Hop& hop, const UrlInfo& next) const {
    if (!isSameServer(next, hop.url) || next.scheme() != hop.url.scheme()) {
        hop.moved = true;
        hop.credentials.reset();
    }
    hop.url = next;
}

// Reads the credentials only after a 401: most downloads do not need them. Returns false if there are none to send,
// which ends the download.
bool Download::addCredentials(Hop& hop, unsigned long offered) const {
    if (hop.credentials) return false;
    const auto configured = configuredCredentials(properties_);
    std::string reason;
    if (configured) {
        reason = whyHeldBack(*configured, hop.url, offered, hop.moved);
    } else if (!hop.url.userInfo().empty()) {
        reason = "those in the URL of a file are never used";
    } else {
        return false;
    }
    if (reason.empty()) {
        hop.credentials = configured->credentials;
        hop.schemes = offered & safeSchemes(hop.url);
        return true;
    }
    dbg::Debug::warning() << "Server " << hop.url.origin() << " asks for credentials, not sent: " << reason
                          << std::endl;
    return false;
}

// While the clock of the phone shows a date in the past, certificates are not valid yet.
void Download::logUnsetClock(int result) const {
    if (result != CURLE_PEER_FAILED_VERIFICATION && result != CURLE_SSL_CONNECT_ERROR) return;
    const auto now = client_.settings.systemNow();
    if (now >= common::releaseDate) return;
    dbg::Debug::warning() << "The clock is not set: it shows " << common::dateText(now)
                          << ", so certificates are not valid yet" << std::endl;
}

void Download::record(const Transfer& transfer) {
    // A 206 completes the file; an attempt without a response keeps the earlier status.
    status_ = transfer.storedRest() || (started_ && transfer.status() == 0) ? httpOk : transfer.status();
    client_.httpCode = status_;
    mismatch_ = transfer.isMismatch();
    context_.received += transfer.received();
    started_ = started_ || transfer.status() == httpOk;
    if (transfer.storedWholeFile() || transfer.storedRest()) resumePoint_ = transfer.resumePoint();
}

// Turns what ends a download early into its result code. A std::function would need memory.
template <typename Function>
int resultOf(const Function& download) {
    try {
        return download();
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

}  // namespace

std::optional<std::uint64_t> sizeLimitOf(const std::string& destination) { return limitOf(destination); }

FileDownloader::FileDownloader(std::shared_ptr<Curl> curl, Security& security,
                               std::shared_ptr<propertyapi::IPropertyApi> properties)
    : curl_(std::move(curl)), security_(security), properties_(std::move(properties)) {}

int FileDownloader::downloadFile(const std::string& url, const std::string& destination) {
    Curl::State& client = *curl_->state_;
    client.httpCode = 0;
    std::optional<UrlInfo> source;
    const int result = resultOf([&] {
        UrlInfo parsed(formatUrl(url, properties_));
        if (!isHttpUrl(parsed.text())) return int{CURLE_UNSUPPORTED_PROTOCOL};
        source = std::move(parsed);
        return Download(client, security_, properties_, *source, destination).run();
    });
    if (source && client.settings.onEnd) client.settings.onEnd(source->text(), result, client.httpCode);
    return result;
}

}  // namespace zav
