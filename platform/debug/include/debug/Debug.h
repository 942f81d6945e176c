// The process's log. A program constructs one Debug with its channel name; every module then writes lines through
// the static functions:
//
//     dbg::Debug::info() << "Found " << count << " valid provisioning job/s. " << std::endl;
//
// A line goes to standard error in one write: time, channel, level, source path without extension, line, text. On a
// journal each line carries its priority. Control bytes in streamed text are escaped, so text from outside can never
// forge a line; `verbatim` text keeps its own line breaks.
//
// Threads: everything here may be called from any thread at any time. Nothing throws. A line waits 2 s at most for a
// reader that does not read; while that goes on, later lines are dropped, and counted in a line once it reads again.
#pragma once

#include <ostream>
#include <sstream>
#include <string>

namespace dbg {

/// Text that is printed as it stands, line breaks included (a document of our own making, never text from outside).
struct Verbatim {
    const std::string& text;
};
inline Verbatim verbatim(const std::string& text) { return {text}; }

/// One open log line. It is written when `std::endl` is streamed, or else when the stream is destroyed.
class Stream {
 public:
    Stream(unsigned level, const char* file, int line);
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream();

    template <typename T>
    Stream& operator<<(const T& value) {
        if (open_) {
            std::ostringstream text;
            text << value;
            append(text.str());
        }
        return *this;
    }
    Stream& operator<<(const std::string& text);
    Stream& operator<<(const char* text);
    Stream& operator<<(Verbatim text);
    Stream& operator<<(std::ostream& (*manipulator)(std::ostream&));

 private:
    void append(const std::string& text);
    void emit();

    const unsigned level_;
    const char* const file_;
    const int line_;
    bool open_;  // false: masked out, or already written
    std::string text_;
};

/// The channel of the process, and the level mask of all its lines.
class Debug {
 public:
    static constexpr unsigned levelError = 1;
    static constexpr unsigned levelWarning = 2;
    static constexpr unsigned levelInfo = 4;

    /// Names the process's channel. One object a process, with static storage; its destruction changes nothing.
    explicit Debug(const char* channel);

    static Stream info(const char* file = __builtin_FILE(), int line = __builtin_LINE());
    static Stream warning(const char* file = __builtin_FILE(), int line = __builtin_LINE());
    static Stream error(const char* file = __builtin_FILE(), int line = __builtin_LINE());

    /// Sets which levels are written: the sum of 1 (error), 2 (warning) and 4 (info), in decimal or as 0x…; all
    /// levels are on until the first call. A text that is no such number is ignored with a warning.
    static void setDebugLevelMask(const std::string& mask);

    /// The process is shutting down: from now on a reader that does not read costs half a second in all.
    static void beginShutdown();
};

/// The text with control bytes replaced by `\n`, `\t`, `\x1b` and so on; everything else as it is.
std::string escapeControls(const std::string& text);

}  // namespace dbg
