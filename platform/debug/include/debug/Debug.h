// The log of the process. The program constructs one Debug with its channel name; all modules then log through the
// static functions:
//
//     dbg::Debug::info() << "Found " << count << " valid provisioning job/s. " << std::endl;
//
// A line goes to standard error: time, channel, level, source path without extension, line number, text. If standard
// error is the journal, each line has its priority. Control bytes in streamed text are escaped, so that text from
// outside cannot forge a line; `verbatim` text keeps its line breaks.
//
// Threads: all functions may be called from any thread at any time and do not throw. If the reader stalls, one line
// waits up to 2 s and the lines after it are dropped; their number is logged once the reader resumes.
//
// A program that shows the log of another one's code may redirect the lines to a sink of its own.
#pragma once

#include <atomic>
#include <functional>
#include <new>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

namespace dbg {

/// Text that is logged unescaped, with its line breaks. Only for text that the program itself made.
struct Verbatim {
    const std::string& text;
};
inline Verbatim verbatim(const std::string& text) { return {text}; }

/// A log line as a sink receives it.
struct LogLine {
    unsigned level = 0;  // one of the levels of Debug
    std::string source;  // path without extension
    int line = 0;
    std::string text;
};
using Sink = std::function<void(const LogLine&)>;

/// One log line. It is written when `std::endl` is streamed, at the latest when the stream is destroyed. Inline as far
/// as a line whose level is off goes, so that it costs next to nothing.
class Stream {
 public:
    Stream(unsigned level, const char* file, int line)
        : level_(level), file_(file), line_(line), open_((levels.load(std::memory_order_relaxed) & level) != 0) {}
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() {
        if (open_) emit();
    }

    template <typename T>
    Stream& operator<<(const T& value) {
        if (open_) appendValue(value);
        return *this;
    }
    Stream& operator<<(const std::string& text) {
        if (open_) append(text.data(), text.size());
        return *this;
    }
    Stream& operator<<(const char* text) {
        if (open_ && text != nullptr) append(text, std::char_traits<char>::length(text));
        return *this;
    }
    Stream& operator<<(Verbatim text) {
        if (open_) appendVerbatim(text.text);
        return *this;
    }
    /// The only manipulator in use is std::endl.
    Stream& operator<<(std::ostream& (*)(std::ostream&)) {
        if (open_) emit();
        return *this;
    }

 private:
    friend class Debug;

    template <typename T>
    void appendValue(const T& value) {
        try {
            if constexpr (std::is_integral_v<T> && sizeof(T) > sizeof(char)) {  // neither bool nor a character
                const std::string digits = std::to_string(value);
                append(digits.data(), digits.size());
            } else {
                std::ostringstream stream;
                stream << value;
                const std::string text = stream.str();
                append(text.data(), text.size());
            }
        } catch (const std::bad_alloc&) {  // as in append
        }
    }
    // Without memory a part of the line is left out: logging does not throw.
    void append(const char* text, std::size_t length) noexcept;
    void appendVerbatim(const std::string& text) noexcept;
    void emit() noexcept;

    static std::atomic<unsigned> levels;  // the level mask of the process

    const unsigned level_;
    const char* const file_;
    const int line_;
    bool open_;  // false if the level is off or the line is written
    std::string text_;
};

/// The channel name and the level mask of the process.
class Debug {
 public:
    static constexpr unsigned levelError = 1;
    static constexpr unsigned levelWarning = 2;
    static constexpr unsigned levelInfo = 4;

    /// Sets the channel name; `channel` must have static storage duration. One object per process.
    explicit Debug(const char* channel);

    static Stream info(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {levelInfo, file, line};
    }
    static Stream warning(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {levelWarning, file, line};
    }
    static Stream error(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {levelError, file, line};
    }

    /// Sets the levels that are logged: the sum of 1 (error), 2 (warning) and 4 (info), decimal or as 0x… in
    /// hexadecimal. The default is all levels. If `mask` is not a number, logs a warning and changes nothing.
    static void setDebugLevelMask(const std::string& mask);

    /// Passes all lines to `sink`, which may be called on any thread and must not log, instead of standard error; null
    /// ends that. Call it while no other thread logs.
    static void redirect(Sink sink);

    /// To be called when the process shuts down: from now on all lines together wait up to 0.5 s for a stalled reader.
    static void beginShutdown();
};

/// The text with control bytes replaced by `\n`, `\t`, `\x1b` and so on.
std::string escapeControls(const std::string& text);

}  // namespace dbg
