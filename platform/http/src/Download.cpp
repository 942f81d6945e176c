#include "Download.h"

#include <strings.h>

#include <array>
#include <ctime>

#include "DownloadFolders.h"
#include "Pace.h"
#include "ResumePlan.h"
#include "common/Release.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr unsigned mostRedirects = 5;
constexpr std::uint64_t firmwareReserve = 16 * mebibyte;  // of its file system, left to the phone

std::uint64_t firmwareLimit(const PartialFile& file) {
    const std::uint64_t room = file.freeBytes() + file.size();
    return room > firmwareReserve ? room - firmwareReserve : 0;
}

std::string dateOf(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

}  // namespace

bool isWeb(const std::string& url) {
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
      order_{file_, {}, source.fileName(), firmware_, client_.settings.steadyNow()} {
    if (firmware_) {
        order_.limit = [this] { return firmwareLimit(file_); };
    } else {
        order_.limit = [bytes = fixedLimit(destination)] { return bytes; };
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
    if (result == CURLE_OK && status_ == 200) file_.commit();
    explain(result);
    return result;
}

bool Download::mayRetry(int result) const {
    return firmware_ && begun_ && (misfit_ || ResumePlan::isBreak(result)) && keepsPace();
}

// False when the process is shutting down.
bool Download::waitForRetry(std::chrono::seconds pause) {
    const bool resumable = !misfit_ && !reached_.version.strongValidator().empty();
    if (misfit_) {
        dbg::Debug::info() << "The server's answer does not continue the file, starting again" << std::endl;
    } else {
        dbg::Debug::info() << "Download broke off after " << file_.size() << " bytes, "
                           << (resumable ? "going on" : "starting again") << std::endl;
    }
    if (!resumable) {
        file_.restart();
        reached_ = ResumePoint();
    }
    return !client_.stopSignal()->waitFor(pause);
}

bool Download::keepsPace() const {
    return zav::keepsPace(client_.settings.steadyNow() - order_.begun, static_cast<std::int64_t>(order_.received));
}

// Follows redirects from the source to the final answer.
int Download::attempt() {
    Hop hop(source_);
    for (;;) {
        Transfer transfer(curl_, security_, order_);
        if (hop.credentials) transfer.useCredentials(*hop.credentials, hop.schemes);
        // A validator means something only together with its URL.
        if (file_.size() != 0 && hop.url.text() == reached_.url) transfer.resume(reached_);
        const int result = transfer.run(hop.url.text());
        note(transfer);
        if (result != CURLE_OK) return result;
        if (status_ == 401 && findCredentials(hop, transfer.offeredSchemes())) continue;
        if (transfer.redirection().empty()) return result;
        if (++hop.redirects > mostRedirects) return CURLE_TOO_MANY_REDIRECTS;
        if (!isWeb(transfer.redirection())) return CURLE_UNSUPPORTED_PROTOCOL;
        const UrlInfo next(transfer.redirection());
        if (hop.url.scheme() == "https" && next.scheme() != "https") {
            dbg::Debug::warning() << "The server redirects from https to http, not followed" << std::endl;
            return CURLE_UNSUPPORTED_PROTOCOL;
        }
        follow(hop, next);
    }
}

// Redirects are followed here and not by libcurl: each step is checked like a URL of our own, and credentials go
// no further than the server that they are for. Userinfo in a redirect goes nowhere, as in every URL.
void Download::follow(Hop& hop, const UrlInfo& next) const {
    if (!isSameServer(next, hop.url) || next.scheme() != hop.url.scheme()) {
        hop.moved = true;
        hop.credentials.reset();
    }
    hop.url = next;
}

// Only read for servers that ask: most downloads never touch these properties. The download ends with a server that
// does not get them, so there is one line a download.
bool Download::findCredentials(Hop& hop, unsigned long offered) const {
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

// A phone that has lost its time takes every certificate for one of the future.
void Download::explain(int result) const {
    if (result != CURLE_PEER_FAILED_VERIFICATION && result != CURLE_SSL_CONNECT_ERROR) return;
    const auto now = client_.settings.systemNow();
    if (now >= common::releaseDate) return;
    dbg::Debug::warning() << "The clock is not set: it shows " << dateOf(now) << ", so certificates are not valid yet"
                          << std::endl;
}

void Download::note(const Transfer& transfer) {
    // A 206 completes the file; an attempt without an answer keeps the earlier status.
    status_ = transfer.tookRest() || (begun_ && transfer.status() == 0) ? 200 : transfer.status();
    Transfer::publishStatus(curl_, status_);
    misfit_ = transfer.isMisfit();
    order_.received += transfer.received();
    begun_ = begun_ || transfer.status() == 200;
    if (transfer.tookWhole() || transfer.tookRest()) reached_ = transfer.reached();
}

}  // namespace zav
