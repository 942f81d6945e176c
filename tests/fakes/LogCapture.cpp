#include "fakes/LogCapture.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <ostream>
#include <stdexcept>

// Exists in sanitizer builds only.
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace fakes {

namespace {

constexpr int recordLimit = 4 << 20;
const std::string mark = "\x01mark";
const std::string lastMark = "\x01last";

void reportSanitizersTo(int descriptor) {
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
    }
}

std::optional<std::string> nextWord(const std::string& text, std::size_t& at) {
    const auto end = text.find(' ', at);
    if (end == std::string::npos) return std::nullopt;
    const std::string word = text.substr(at, end - at);
    at = end + 1;
    return word;
}

// "TIME CHANNEL LEVEL SOURCE:LINE TEXT"
LogLine parse(std::string record) {
    if (!record.empty() && record.back() == '\n') record.pop_back();
    std::size_t at = 0;
    const auto time = nextWord(record, at);
    const auto channel = nextWord(record, at);
    const auto level = nextWord(record, at);
    const auto source = nextWord(record, at);
    const bool isLine =
        time && channel && level && source && (*level == "info" || *level == "warning" || *level == "error");
    const auto colon = isLine ? source->rfind(':') : std::string::npos;
    if (colon == std::string::npos) return {"", "", record};
    return {*level, source->substr(0, colon), record.substr(at)};
}

}  // namespace

bool operator==(const LogLine& a, const LogLine& b) {
    return a.level == b.level && a.source == b.source && a.text == b.text;
}

std::string toText(const LogLine& line) {
    std::string text = line.level.empty() ? "(no log line) " : line.level + " " + line.source + ": ";
    for (const char c : line.text) {
        if (c == '\n') {
            text += "\\n";
        } else if (c == '\t') {
            text += "\\t";
        } else {
            text += c;
        }
    }
    return text;
}

std::ostream& operator<<(std::ostream& stream, const LogLine& line) { return stream << toText(line); }

// Each write of the log is one packet, so an entry with line breaks remains one entry.
LogCapture::LogCapture() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket pair");
    reading_ = ends[0];
    writing_ = ends[1];
    setsockopt(writing_, SOL_SOCKET, SO_SNDBUF, &recordLimit, sizeof recordLimit);
    savedStderr_ = dup(STDERR_FILENO);
    reportSanitizersTo(savedStderr_);
    std::fflush(stderr);
    dup2(writing_, STDERR_FILENO);
    reader_ = std::thread([this] { read(); });
}

LogCapture::~LogCapture() {
    std::fflush(stderr);
    dup2(savedStderr_, STDERR_FILENO);
    reportSanitizersTo(STDERR_FILENO);
    static_cast<void>(!::write(writing_, lastMark.data(), lastMark.size()));
    reader_.join();
    for (const int descriptor : {savedStderr_, writing_, reading_}) close(descriptor);
}

void LogCapture::read() {
    std::string buffer(recordLimit, '\0');
    for (;;) {
        const ssize_t size = recv(reading_, buffer.data(), buffer.size(), 0);
        if (size <= 0) return;
        const std::string record = buffer.substr(0, static_cast<std::size_t>(size));
        if (record == lastMark) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        if (record == mark) {
            ++marksRead_;
        } else {
            lines_.push_back(parse(record));
        }
        arrived_.notify_all();
    }
}

// Writes a mark after all entries so far, and waits until the reader has read it.
void LogCapture::synchronise() const {
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned long own = ++marksWritten_;
    lock.unlock();
    if (::write(writing_, mark.data(), mark.size()) < 0) throw std::runtime_error("the log cannot be read");
    lock.lock();
    arrived_.wait(lock, [&] { return marksRead_ >= own; });
}

LogCapture::Lines LogCapture::lines() const {
    synchronise();
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

LogCapture::Lines LogCapture::linesOf(const std::string& source) const {
    Lines chosen;
    for (const LogLine& line : lines()) {
        if (line.source.compare(0, source.size(), source) == 0) chosen.push_back(line);
    }
    return chosen;
}

std::size_t LogCapture::count(const LogLine& line) const {
    const Lines all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
}

bool LogCapture::waitFor(const LogLine& line, std::size_t times, std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, patience, [&] {
        return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line)) >= times;
    });
}

void LogCapture::forget() {
    synchronise();
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

std::string LogCapture::text() const {
    std::string text;
    for (const LogLine& line : lines()) text += toText(line) + "\n";
    return text;
}

}  // namespace fakes
