#include "Download.h"

#include <strings.h>

#include <array>
#include <chrono>
#include <ctime>

#include "DownloadFolders.h"
#include "HttpStatus.h"
#include "Pace.h"
#include "ResumePlan.h"
#include "debug/Debug.h"
#include "http/CurlTypes.h"

namespace zav {

namespace {

constexpr unsigned maxRedirects = 5;
// A system clock that shows an earlier date has not been set.
constexpr std::chrono::system_clock::time_point releaseDate{std::chrono::seconds{1795305600}};  // 2026-11-22, UTC
constexpr std::uint64_t firmwareReserve = 16 * mebibyte;  // left free on the file system

std::uint64_t firmwareLimit(const PartialFile& file) {
    const std::uint64_t available = file.freeBytes() + file.size();
    return available > firmwareReserve ? available - firmwareReserve : 0;
}

std::string formatDate(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

}  // namespace

bool isHttpUrl(const std::string& url) {
    return strncasecmp(url.c_str(), "http://", 7) == 0 || strncasecmp(url.c_str(), "https://", 8) == 0;
}

Download::Download(Curl& curl, const Security& security, const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                   const UrlInfo& source, const std::string& destination)
    : curl_(curl),
      client_(*curl.state_),
      security_(security),
      properties_(properties),
      source_(source),
      firmware_(isFirmware(destination)),
      file_(destination),
      context_{file_, {}, source.fileName(), firmware_, client_.settings.steadyNow()} {
    if (firmware_) {
        context_.limit = [this] { return firmwareLimit(file_); };
    } else {
        context_.limit = [bytes = fixedLimit(destination)] { return bytes; };
    }
}

int Download::run() {
    int result = attempt();
    ResumePlan plan;
    while (mayRetry(result)) {
        const auto pause = plan.next(file_.size());
        if (!pause || !waitForRetry(*pause)) break;
        result = attempt();
    }
    if (result == CURLE_OK && status_ == httpOk) file_.commit();
    logUnsetClock(result);
    return result;
}

bool Download::mayRetry(int result) const {
    return firmware_ && started_ && (mismatch_ || ResumePlan::isRetryable(result)) && keepsPace();
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

bool Download::keepsPace() const {
    return zav::keepsPace(client_.settings.steadyNow() - context_.startedAt,
                          static_cast<std::int64_t>(context_.received));
}

// Follows redirects from the source to the final response.
int Download::attempt() {
    Hop hop(source_);
    for (;;) {
        Transfer transfer(curl_, security_, context_, identityFor(hop.url));
        if (hop.credentials) transfer.useCredentials(*hop.credentials, hop.schemes);
        // A validator is valid for its URL only.
        if (file_.size() != 0 && hop.url.text() == resumePoint_.url) transfer.resume(resumePoint_);
        const int result = transfer.run(hop.url.text());
        record(transfer);
        if (result != CURLE_OK) return result;
        if (status_ == HttpStatus::unauthorized && addCredentials(hop, transfer.offeredSchemes())) continue;
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

// Only the configured server learns who the phone is.
std::shared_ptr<const DeviceIdentity> Download::identityFor(const UrlInfo& url) const {
    auto identity = url.scheme() == "https" ? security_.deviceIdentity() : nullptr;
    return identity != nullptr && isConfiguredServer(url, properties_) ? identity : nullptr;
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
    if (now >= releaseDate) return;
    dbg::Debug::warning() << "The clock is not set: it shows " << formatDate(now)
                          << ", so certificates are not valid yet" << std::endl;
}

void Download::record(const Transfer& transfer) {
    // A 206 completes the file; an attempt without a response keeps the earlier status.
    status_ = transfer.storedRest() || (started_ && transfer.status() == 0) ? httpOk : transfer.status();
    Transfer::setClientStatus(curl_, status_);
    mismatch_ = transfer.isMismatch();
    context_.received += transfer.received();
    started_ = started_ || transfer.status() == httpOk;
    if (transfer.storedWholeFile() || transfer.storedRest()) resumePoint_ = transfer.resumePoint();
}

}  // namespace zav
