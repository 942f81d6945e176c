// Finds out from the daemon's log why a pass was not a success: its warnings and errors, and what follows from other
// lines ("0 jobs were found in the file"). Lines that only follow from another one are left out.
//
// It is given all lines that were logged since the request, in order, and keeps those of one pass: the last that has
// ended, with the passes nested in it. What it keeps is bounded. One thread uses it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Advice.h"

namespace zavctl {

struct Reason {
    std::string level;               // "error" or "warning"
    std::vector<std::string> texts;  // different ones of one kind, in the order of the log
    std::size_t more = 0;            // such lines that are not in `texts`
    std::string advice;              // empty if there is none
};

class PassReasons {
 public:
    static constexpr std::size_t maximumKinds = 20;
    static constexpr std::size_t maximumTexts = 100;  // of one kind

    /// One line of the log, without the line break. What is not a line of the daemon is ignored.
    void add(std::string_view line);

    /// How many passes have ended, those nested in others not counted.
    std::size_t endedPasses() const;

    /// Whether there was any line of a pass. If not, the log leaves out information, or is another one.
    bool hasPass() const { return ended_ > 0 || pass_.started > 0 || pass_.finished > 0; }

    /// Of the last pass that has ended; of all lines if none has.
    const std::vector<Reason>& reasons() const;

 private:
    struct LogLine {
        std::string_view level;
        std::string_view source;  // with the line number
        std::string_view text;
    };
    struct Pass {
        std::size_t started = 0;  // nested ones included
        std::size_t finished = 0;
        std::vector<Reason> reasons;
        std::map<std::string, std::size_t> kinds;  // to the index of its reason
        std::map<std::string, std::set<std::string>> known;
        bool explained = false;              // there is a reason for what fails next
        std::optional<std::string> pending;  // verified, and none of its jobs has been seen
        bool categoriesPending = false;      // a job of categories has begun, and none of them
    };

    static std::optional<LogLine> parse(std::string_view line);
    bool isComplete() const { return pass_.started > 0 && pass_.finished >= pass_.started; }
    void follow(const LogLine& line);
    void concludeNoJobs();
    void report(const LogLine& line);
    void append(const std::string& kind, std::string_view level, std::string_view text, const Advice* advice);
    void conclude(const std::string& text);

    Pass pass_;  // the lines since the last pass that has ended
    Pass last_;  // the last one that has ended
    std::size_t ended_ = 0;
};

}  // namespace zavctl
