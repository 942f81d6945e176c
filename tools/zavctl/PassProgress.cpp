#include "PassProgress.h"

#include <algorithm>
#include <utility>

#include "Output.h"
#include "propertyprotocol/Json.h"

namespace zavctl {

namespace {

constexpr std::chrono::milliseconds staleAfter{1500};

// Counts as they stand in a line of their own, in the unit that goes with them.
struct Shown {
    std::uint64_t done;
    std::uint64_t total;
    std::string unit;
};

Shown shownOf(const JobProgress& progress) {
    constexpr std::uint64_t thousand = 1000;
    if (progress.unit != "bytes") return {progress.done, progress.total, "settings"};
    const std::uint64_t size = std::max(progress.done, progress.total);
    const auto in = [&](std::uint64_t divisor, const char* unit) {
        return Shown{progress.done / divisor, progress.total / divisor, unit};
    };
    if (size < 100 * thousand) return in(1, "bytes");
    if (size < 100 * thousand * thousand) return in(thousand, "kB");
    return in(thousand * thousand, "MB");
}

std::optional<std::uint64_t> numberOf(const std::string& digits) {
    constexpr std::size_t maximumDigits = 18;
    if (digits.empty() || digits.size() > maximumDigits) return std::nullopt;
    if (digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    return std::stoull(digits);
}

Json::Value number(std::uint64_t value) { return Json::Value(Json::UInt64{value}); }

}  // namespace

std::optional<JobProgress> parseProgress(const std::string& content) {
    propertyprotocol::Change message;
    if (!propertyprotocol::readChange(content, message)) return std::nullopt;
    const std::size_t slash = message.value.find('/');
    const std::size_t blank = message.value.find(' ');
    if (message.param.empty() || slash == std::string::npos || blank == std::string::npos || blank < slash) return {};
    const std::optional<std::uint64_t> done = numberOf(message.value.substr(0, slash));
    const std::optional<std::uint64_t> total = numberOf(message.value.substr(slash + 1, blank - slash - 1));
    const std::string unit = message.value.substr(blank + 1);
    if (!done || !total || (unit != "bytes" && unit != "items")) return std::nullopt;
    return JobProgress{message.param, *done, *total, unit};
}

void ProgressFeed::messageArrived(const std::string& topic, const std::string& content) {
    if (topic != progressTopic) return;
    const std::optional<JobProgress> progress = parseProgress(content);
    if (!progress) return;
    const common::LockGuard lock(mutex_);
    if (arrived_.size() == maximumKept) arrived_.erase(arrived_.begin());
    arrived_.push_back(*progress);
}

std::vector<JobProgress> ProgressFeed::take() {
    const common::LockGuard lock(mutex_);
    return std::exchange(arrived_, {});
}

PassProgress::PassProgress(const Environment& environment, bool json)
    : environment_(environment), json_(json), nextLine_(environment.progressEvery) {}

void PassProgress::show(const std::string& phase, const std::vector<JobProgress>& news,
                        std::chrono::milliseconds elapsed) {
    for (const JobProgress& progress : news) {
        if (json_) {
            printJson(environment_.out, toObject({{"event", "progress"},
                                                  {"job", progress.job},
                                                  {"done", number(progress.done)},
                                                  {"total", number(progress.total)},
                                                  {"unit", progress.unit}}));
        }
        const bool sameJob = job_ && job_->job == progress.job && job_->unit == progress.unit &&
                             (job_->total == progress.total || job_->total == 0) && job_->done <= progress.done;
        if (!sameJob) bar_.reset();
        job_ = progress;
    }
    if (json_) return;
    // Between two messages the rate would only fall, until it is clear that nothing comes.
    const bool isStale = news.empty() && bar_ && elapsed < drawnAt_ + staleAfter;
    if (environment_.outIsTerminal && !isStale) {
        drawnAt_ = elapsed;
        showOnTerminal(phase, elapsed);
    } else if (!environment_.outIsTerminal) {
        showAsLine(phase, elapsed);
    }
}

void PassProgress::showOnTerminal(const std::string& phase, std::chrono::milliseconds elapsed) {
    if (job_ && job_->done > 0) {
        if (!bar_) {
            clear();
            bar_.emplace(environment_.out, true, environment_.columns, environment_.now);
        }
        const bool isBytes = job_->unit == "bytes";
        bar_->show(job_->done, job_->total, isBytes ? "bytes" : "settings", isBytes ? job_->job : "");
        return;
    }
    clear();
    environment_.out << phase << " … " << elapsed.count() / 1000 << " s" << std::flush;
    visible_ = true;
}

void PassProgress::showAsLine(const std::string& phase, std::chrono::milliseconds elapsed) {
    if (elapsed < nextLine_) return;
    nextLine_ = elapsed - elapsed % environment_.progressEvery + environment_.progressEvery;
    std::string text = phase;
    if (job_) {
        const Shown shown = shownOf(*job_);
        text = job_->job + ": " + std::to_string(shown.done) +
               (shown.total > 0 ? " of " + std::to_string(shown.total) : "") + " " + shown.unit;
    }
    printError(environment_.err, text + ", " + std::to_string(elapsed.count() / 1000) + " s");
}

void PassProgress::clear() {
    if (bar_) bar_->clear();
    if (visible_) environment_.out << "\r\x1b[K" << std::flush;
    visible_ = false;
}

}  // namespace zavctl
