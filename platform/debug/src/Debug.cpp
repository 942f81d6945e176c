#include "debug/Debug.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

#include "Output.h"
#include "common/ByteSet.h"

namespace dbg {

namespace {

constexpr unsigned allLevels = Debug::levelError | Debug::levelWarning | Debug::levelInfo;

std::atomic<const char*> channelName{"-"};

const char* levelName(unsigned level) {
    if (level == Debug::levelError) return "error";
    if (level == Debug::levelWarning) return "warning";
    return "info";
}

// If standard error is the journal, the service manager sets JOURNAL_STREAM to its device and inode numbers.
bool isJournal() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is never changed
    const char* journal = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (journal == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == journal;
}

// Syslog priorities as line prefixes, which the journal strips: 3 error, 4 warning, 6 informational.
const char* journalPriority(unsigned level) {
    if (level == Debug::levelError) return "<3>";
    if (level == Debug::levelWarning) return "<4>";
    return "<6>";
}

// Formatting the time costs as much as the rest of a line, so each thread keeps the text of its last second.
void appendTime(std::string& line) {
    struct Formatted {
        std::time_t second;
        std::size_t length;  // 0 at first
        std::array<char, 32> text;
    };
    static thread_local Formatted last{};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last.second || last.length == 0) {
        tm local{};
        localtime_r(&now.tv_sec, &local);
        last.length = std::strftime(last.text.data(), last.text.size(), "%Y-%m-%dT%H:%M:%S.", &local);
        last.second = now.tv_sec;
    }
    line.append(last.text.data(), last.length);
    const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
    for (const unsigned unit : {100U, 10U, 1U}) line += static_cast<char>('0' + milliseconds / unit % 10);
}

std::string_view withoutExtension(std::string_view path) {
    const auto dot = path.rfind('.');
    const auto slash = path.rfind('/');
    const bool hasExtension = dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash);
    return hasExtension ? path.substr(0, dot) : path;
}

constexpr common::ByteSet isControl([](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });

void appendEscape(std::string& escaped, char control) {
    static constexpr char digits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(control);
    if (control == '\n') {
        escaped += "\\n";
    } else if (control == '\t') {
        escaped += "\\t";
    } else if (control == '\r') {
        escaped += "\\r";
    } else {
        escaped += "\\x";
        escaped += digits[byte >> 4U];
        escaped += digits[byte & 0xfU];
    }
}

void appendEscaped(std::string& escaped, std::string_view text) {
    while (!text.empty()) {
        const auto control = std::find_if(text.begin(), text.end(), isControl);
        const auto plain = static_cast<std::size_t>(control - text.begin());
        escaped.append(text.data(), plain);
        text.remove_prefix(plain);
        if (text.empty()) return;
        appendEscape(escaped, text.front());
        text.remove_prefix(1);
    }
}

// Never destroyed, because threads may log while the process exits.
Output& output() {
    static auto* const standardError = new Output(STDERR_FILENO);
    return *standardError;
}

Sink& redirection() {
    static auto* const sink = new Sink;
    return *sink;
}

// To the journal each line of a text is an entry of its own.
void appendEachLineAfter(std::string& line, std::string_view text, std::string_view prefix) {
    for (auto end = text.find('\n'); end != std::string_view::npos && !prefix.empty(); end = text.find('\n')) {
        line.append(text.substr(0, end + 1)).append(prefix);
        text.remove_prefix(end + 1);
    }
    line += text;
}

std::string lineOf(unsigned level, const char* file, int number, const std::string& text) {
    constexpr std::size_t usualHead = 128;
    static const bool journal = isJournal();
    const char* const priority = journal ? journalPriority(level) : "";
    std::string line;
    line.reserve(usualHead + text.size());
    line += priority;
    appendTime(line);
    // Single letters are appended inline.
    (line += ' ') += channelName.load();
    (line += ' ') += levelName(level);
    (line += ' ') += withoutExtension(file);
    (line += ':') += std::to_string(number);
    line += ' ';
    appendEachLineAfter(line, text, priority);
    return line += '\n';
}

std::string lossNotice(std::size_t lost) {
    return lineOf(Debug::levelWarning, __builtin_FILE(), __builtin_LINE(),
                  std::to_string(lost) + " log lines were lost");
}

}  // namespace

std::atomic<unsigned> Stream::levels{allLevels};

std::string escapeControls(const std::string& text) {
    std::string escaped;
    appendEscaped(escaped, text);
    return escaped;
}

void Stream::append(const char* text, std::size_t length) noexcept {
    constexpr std::size_t usualLength = 128;
    try {
        if (text_.empty()) text_.reserve(usualLength);  // instead of growing three times
        appendEscaped(text_, {text, length});
    } catch (const std::bad_alloc&) {
    }
}

void Stream::appendVerbatim(const std::string& text) noexcept {
    try {
        text_ += text;
    } catch (const std::bad_alloc&) {
    }
}

void Stream::emit() noexcept {
    open_ = false;
    try {
        if (const Sink& sink = redirection()) {
            sink({level_, std::string(withoutExtension(file_)), line_, text_});
            return;
        }
        output().write(lineOf(level_, file_, line_, text_), lossNotice);
    } catch (...) {  // out of memory: the line is dropped
    }
}

Debug::Debug(const char* channel) { channelName.store(channel); }

void Debug::setDebugLevelMask(const std::string& mask) {
    const bool hexadecimal = mask.compare(0, 2, "0x") == 0 || mask.compare(0, 2, "0X") == 0;
    const std::string digits = hexadecimal ? mask.substr(2) : mask;
    const char* allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
    errno = 0;
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, hexadecimal ? 16 : 10);
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos || errno == ERANGE) {
        warning() << "Debug level mask '" << mask << "' is not a number, ignored" << std::endl;
        return;
    }
    Stream::levels.store(static_cast<unsigned>(value & allLevels));
}

void Debug::redirect(Sink sink) { redirection() = std::move(sink); }

void Debug::beginShutdown() { output().beginShutdown(); }

}  // namespace dbg
