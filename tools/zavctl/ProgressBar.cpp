#include "ProgressBar.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>
#include <vector>

namespace zavctl {

namespace {

constexpr std::chrono::milliseconds betweenDrawings{100};
// A rate over a shorter time would jump.
constexpr double leastSecondsForRate = 0.5;
constexpr std::size_t widestBar = 20;
constexpr std::size_t narrowestBar = 5;
constexpr char eraseToEnd[] = "\x1b[K";

// How numbers of a unit are written.
struct Scale {
    double divisor = 1;
    const char* unit = nullptr;  // null: the caller's, and whole numbers
};

Scale scaleOf(double bytes) {
    if (bytes >= 1e9) return {1e9, "GB"};
    if (bytes >= 1e6) return {1e6, "MB"};
    return bytes >= 1e3 ? Scale{1e3, "kB"} : Scale{};
}

std::string number(double value, const Scale& scale) {
    if (scale.unit != nullptr) {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "%.1f", value / scale.divisor);
        return text.data();
    }
    std::string text = std::to_string(static_cast<std::uint64_t>(value));
    for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
    return text;
}

std::string duration(double seconds) {
    const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
    if (whole < 60) return std::to_string(whole) + " s";
    if (whole < 3600) return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
    return std::to_string(whole / 3600) + " h " + std::to_string(whole % 3600 / 60) + " min";
}

std::string bar(double share, std::size_t width) {
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(width));
    return "[" + std::string(filled, '#') + std::string(width - filled, ' ') + "] ";
}

struct Parts {
    std::optional<double> share;
    std::string counts;
    std::string name;
    std::string rate;
    std::string left;
};

std::string separated(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        if (!part.empty()) text += (text.empty() ? "" : ", ") + part;
    }
    return text;
}

// The most that fits: what matters least goes first.
std::string fitted(const Parts& parts, std::size_t width) {
    const std::string named = parts.counts + (parts.name.empty() ? "" : " " + parts.name);
    const std::string percent =
        parts.share ? std::to_string(static_cast<int>(*parts.share * 100)) + " %" : parts.counts;
    const std::string full = separated({named, parts.rate, parts.left});
    if (parts.share && full.size() + narrowestBar + 3 <= width) {
        return bar(*parts.share, std::min(widestBar, width - full.size() - 3)) + full;
    }
    for (const std::string& text :
         {full, separated({parts.counts, parts.rate, parts.left}), separated({parts.counts, parts.left}),
          separated({percent, parts.left}), parts.counts, percent}) {
        if (text.size() <= width) return text;
    }
    return percent.substr(0, width);
}

}  // namespace

ProgressBar::ProgressBar(std::ostream& stream, bool isTerminal, std::function<std::size_t()> columns,
                         std::function<Time()> now)
    : stream_(stream), isTerminal_(isTerminal), columns_(std::move(columns)), now_(std::move(now)) {}

void ProgressBar::show(std::uint64_t done, std::uint64_t total, const std::string& unit, const std::string& name) {
    if (!isTerminal_) return;
    const Time now = now_();
    if (!begin_) {
        begin_ = now;
        doneAtBegin_ = done;
    }
    const bool complete = total > 0 && done >= total;
    if (visible_ && !complete && now - drawnAt_ < betweenDrawings) return;
    const auto shown = static_cast<double>(done);
    const bool isBytes = unit == "bytes";
    const Scale scale = isBytes ? scaleOf(static_cast<double>(std::max(done, total))) : Scale{};
    Parts parts;
    parts.name = name;
    if (total > 0) parts.share = std::min(1.0, shown / static_cast<double>(total));
    parts.counts = number(shown, scale) + (total > 0 ? "/" + number(static_cast<double>(total), scale) : "") + " " +
                   (scale.unit != nullptr ? scale.unit : unit);
    const double seconds = std::chrono::duration<double>(now - *begin_).count();
    if (seconds >= leastSecondsForRate && done > doneAtBegin_) {
        const double rate = static_cast<double>(done - doneAtBegin_) / seconds;
        const Scale scaleOfRate = isBytes ? scaleOf(rate) : Scale{};
        parts.rate = number(rate, scaleOfRate) + " " + (scaleOfRate.unit != nullptr ? scaleOfRate.unit : unit) + "/s";
        if (total > done) parts.left = duration(static_cast<double>(total - done) / rate) + " left";
    }
    // In its last column a terminal may begin a new line.
    const std::size_t columns = columns_();
    stream_ << "\r" << fitted(parts, columns > 1 ? columns - 1 : 1) << eraseToEnd << std::flush;
    visible_ = true;
    drawnAt_ = now;
}

void ProgressBar::clear() {
    if (visible_) stream_ << "\r" << eraseToEnd << std::flush;
    visible_ = false;
}

}  // namespace zavctl
