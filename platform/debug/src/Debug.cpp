#include "debug/Debug.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "Output.h"

namespace dbg {

namespace {

constexpr unsigned allLevels = Debug::levelError | Debug::levelWarning | Debug::levelInfo;

std::atomic<unsigned> levelMask{allLevels};
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

std::string timeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 32> seconds{};
    std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::string milliseconds = std::to_string(now.tv_nsec / 1000000);
    milliseconds.insert(0, 3 - milliseconds.size(), '0');
    return std::string(seconds.data()) + "." + milliseconds;
}

std::string withoutExtension(const char* file) {
    std::string path(file);
    const auto dot = path.rfind('.');
    const auto slash = path.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.erase(dot);
    return path;
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

/// To the journal each line of a text is an entry of its own.
std::string eachLineAfter(std::string text, const std::string& prefix) {
    for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1)) {
        text.insert(end + 1, prefix);
    }
    return text;
}

std::string lineOf(unsigned level, const char* file, int line, const std::string& text) {
    static const bool journal = isJournal();
    const std::string priority = journal ? journalPriority(level) : "";
    return priority + timeStamp() + " " + channelName.load() + " " + levelName(level) + " " + withoutExtension(file) +
           ":" + std::to_string(line) + " " + eachLineAfter(text, priority) + "\n";
}

std::string lossNotice(std::size_t lost) {
    return lineOf(Debug::levelWarning, __builtin_FILE(), __builtin_LINE(),
                  std::to_string(lost) + " log lines were lost");
}

}  // namespace

std::string escapeControls(const std::string& text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            escaped += c;
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '\t') {
            escaped += "\\t";
        } else if (c == '\r') {
            escaped += "\\r";
        } else {
            escaped += "\\x";
            escaped += digits[byte >> 4U];
            escaped += digits[byte & 0xfU];
        }
    }
    return escaped;
}

Stream::Stream(unsigned level, const char* file, int line)
    : level_(level), file_(file), line_(line), open_((levelMask.load(std::memory_order_relaxed) & level) != 0) {}

Stream::~Stream() { emit(); }

void Stream::append(const std::string& text) { text_ += escapeControls(text); }

Stream& Stream::operator<<(const std::string& text) {
    return ifOpen([&] { append(text); });
}

Stream& Stream::operator<<(const char* text) {
    return ifOpen([&] {
        if (text != nullptr) append(text);
    });
}

Stream& Stream::operator<<(Verbatim text) {
    return ifOpen([&] { text_ += text.text; });
}

Stream& Stream::operator<<(std::ostream& (*)(std::ostream&)) {
    // The only manipulator in use is std::endl.
    emit();
    return *this;
}

void Stream::emit() {
    if (!open_) return;
    open_ = false;
    try {
        if (const Sink& sink = redirection()) {
            sink({level_, withoutExtension(file_), line_, text_});
            return;
        }
        output().write(lineOf(level_, file_, line_, text_), lossNotice);
    } catch (...) {  // out of memory: the line is dropped
    }
}

Debug::Debug(const char* channel) { channelName.store(channel); }

Stream Debug::info(const char* file, int line) { return {levelInfo, file, line}; }
Stream Debug::warning(const char* file, int line) { return {levelWarning, file, line}; }
Stream Debug::error(const char* file, int line) { return {levelError, file, line}; }

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
    levelMask.store(static_cast<unsigned>(value & allLevels));
}

void Debug::redirect(Sink sink) { redirection() = std::move(sink); }

void Debug::beginShutdown() { output().beginShutdown(); }

}  // namespace dbg
