// What the program logs while a LogCapture lives, entry by entry. Standard error leads here meanwhile; a sanitizer's
// report still goes where it went before.
//
// Threads: any may log and any may ask. One capture at a time.
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

/// One entry of the log, without its time, channel and line number. What is no log line has neither level nor source.
struct LogLine {
    std::string level;   // "info", "warning" or "error"
    std::string source;  // such as "Core/Utils"
    std::string text;    // line breaks included
};

bool operator==(const LogLine& a, const LogLine& b);
/// level source: text, with line breaks and tabs as \n and \t.
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

    /// Everything that was logged before this call.
    Lines lines() const;
    /// Of those the lines whose source begins so.
    Lines linesOf(const std::string& source) const;
    std::size_t count(const LogLine& line) const;
    bool has(const LogLine& line) const { return count(line) > 0; }

    /// Waits until the line was logged `times` times. False when it never was.
    bool waitFor(const LogLine& line, std::size_t times = 1,
                 std::chrono::milliseconds patience = std::chrono::seconds(30)) const;

    void forget();

    /// Everything so far, one line each, for the message of a failed test.
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
