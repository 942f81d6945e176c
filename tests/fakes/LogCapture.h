// Captures the log entries of the program while a LogCapture exists, by redirecting standard error. Sanitizer reports
// still go to the original standard error. Any thread may log or call the capture. One capture at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fakes {

/// A log entry without time, channel and line number. Other output has neither level nor source.
struct LogLine {
    std::string level;   // "info", "warning" or "error"
    std::string source;  // for example "Core/Utils"
    std::string text;    // line breaks included
};

bool operator==(const LogLine& a, const LogLine& b);
/// "LEVEL SOURCE: TEXT", with line breaks and tabs as \n and \t.
std::string toText(const LogLine& line);
std::ostream& operator<<(std::ostream& stream, const LogLine& line);

inline LogLine info(std::string source, std::string text) { return {"info", std::move(source), std::move(text)}; }
inline LogLine warning(std::string source, std::string text) { return {"warning", std::move(source), std::move(text)}; }
inline LogLine error(std::string source, std::string text) { return {"error", std::move(source), std::move(text)}; }

class LogCapture {
 public:
    using Lines = std::vector<LogLine>;

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All entries logged before this call.
    Lines lines() const;
    /// Only the entries whose source begins with `source`.
    Lines linesOf(const std::string& source) const;
    std::size_t count(const LogLine& line) const;
    bool has(const LogLine& line) const { return count(line) > 0; }

    /// Waits until the line was logged `times` times; returns false after `patience`.
    bool waitFor(const LogLine& line, std::size_t times = 1,
                 std::chrono::milliseconds patience = std::chrono::seconds(30)) const;

    void forget();

    /// All entries so far, one per line, for messages of failed tests.
    std::string text() const;

 private:
    void read();
    void synchronise() const;

    int savedStderr_ = -1;
    int writing_ = -1;
    int reading_ = -1;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    // Guarded by mutex_.
    Lines lines_;
    mutable unsigned long marksWritten_ = 0;
    unsigned long marksRead_ = 0;
    std::thread reader_;
};

}  // namespace fakes
