#include "ProgressBar.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace zavctl {

namespace {

constexpr std::chrono::milliseconds betweenDrawings{100};
// A rate over a shorter time would jump.
constexpr double leastSecondsForRate = 0.5;
constexpr std::size_t barWidth = 20;
constexpr char eraseToEnd[] = "\x1b[K";

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
    return text;
}

std::string duration(double seconds) {
    const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
    if (whole < 60) return std::to_string(whole) + " s";
    if (whole < 3600) return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
    return std::to_string(whole / 3600) + " h " + std::to_string(whole % 3600 / 60) + " min";
}

std::string bar(double share) {
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(barWidth));
    return "[" + std::string(filled, '#') + std::string(barWidth - filled, ' ') + "] ";
}

}  // namespace

ProgressBar::ProgressBar(std::ostream& stream, bool isTerminal, std::function<Time()> now)
    : stream_(stream), isTerminal_(isTerminal), now_(std::move(now)) {}

void ProgressBar::show(std::uint64_t done, std::uint64_t total, const std::string& unit) {
    if (!isTerminal_) return;
    const Time now = now_();
    if (!begin_) {
        begin_ = now;
        doneAtBegin_ = done;
    }
    const bool complete = total > 0 && done >= total;
    if (visible_ && !complete && now - drawnAt_ < betweenDrawings) return;
    std::string line;
    if (total > 0) line = bar(std::min(1.0, static_cast<double>(done) / static_cast<double>(total)));
    line += grouped(done) + (total > 0 ? "/" + grouped(total) : "") + " " + unit;
    const double seconds = std::chrono::duration<double>(now - *begin_).count();
    if (seconds >= leastSecondsForRate && done > doneAtBegin_) {
        const double rate = static_cast<double>(done - doneAtBegin_) / seconds;
        line += ", " + grouped(static_cast<std::uint64_t>(rate)) + "/s";
        if (total > done) line += ", " + duration(static_cast<double>(total - done) / rate) + " left";
    }
    stream_ << "\r" << line << eraseToEnd << std::flush;
    visible_ = true;
    drawnAt_ = now;
}

void ProgressBar::clear() {
    if (visible_) stream_ << "\r" << eraseToEnd << std::flush;
    visible_ = false;
}

}  // namespace zavctl
