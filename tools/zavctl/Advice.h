// What lines of the daemon's log mean and what to do about them. docs/common-errors.md shows the same rows, in the same
// order and words; a test compares both. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zavctl {

/// What a line tells about a pass that was not a success.
enum class Role {
    reason,
    reasonAtAnyLevel,  // also as information
    consequence,       // a reason only if no line before it explains it
    detail,            // belongs to a reason and needs no advice of its own
    ignored,
};

/// One row, in Markdown as on the page.
struct Advice {
    /// The line, or several in a row: each in backquotes, with "…" for any text.
    const char* line;
    const char* meaning;
    const char* remedy;
    Role role = Role::reason;
};

/// The table "Lines of the log".
const std::vector<Advice>& logAdvice();
/// The table "Conclusions of zavctl": lines that zavctl adds.
const std::vector<Advice>& ownAdvice();

/// The advice whose line fits the text best: the one with most literal characters. Null if none fits.
const Advice* findAdvice(std::string_view text);

/// The remedy in plain text, links as "TEXT (docs/PAGE)". Empty if there is none.
std::string plainRemedy(const Advice& advice);

}  // namespace zavctl
