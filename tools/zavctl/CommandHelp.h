// What the help says below a command's options: its exit statuses and examples.
#pragma once

#include <string>
#include <vector>

namespace zavctl {

inline constexpr char notWritten[] = "the output could not be written";
inline constexpr char noAnswer[] = "the property service did not answer in time";

// What the exit statuses of a command mean; null: the command never exits with it.
struct Statuses {
    const char* done;
    const char* failed = notWritten;
    const char* noSuchKey = nullptr;
    const char* timedOut = noAnswer;
    const char* unreachable = "the broker or the property service cannot be reached";
};

using Examples = std::vector<std::string>;

std::string exampleLines(const Examples& examples);

/// Of a command.
std::string footer(const Statuses& statuses, const Examples& examples);

/// Of the list of commands.
std::string generalFooter();

}  // namespace zavctl
