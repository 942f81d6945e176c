#include "Core/JobHandlers/RegularExpression.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "Core/JobHandlers/JobHandler.h"
#include "data/UrlVectors.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

// A row of regular-expressions.txt; the file describes its format.
struct Row {
    std::string line, outcome, pattern, text;
};

std::vector<Row> rows() {
    std::ifstream file(REGULAR_EXPRESSIONS);
    std::vector<Row> found;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        Row row{line, {}, {}, {}};
        if (!(words >> row.outcome >> row.pattern >> row.text)) throw std::runtime_error(line);
        row.text = data::unescaped(row.text);
        found.push_back(row);
    }
    if (found.size() < 100) throw std::runtime_error(REGULAR_EXPRESSIONS " cannot be read");
    return found;
}

std::string outcome(const std::string& pattern, const std::string& text) {
    if (pattern == "@") return zav::isValidVersion(text) ? "match" : "no";
    const std::optional<bool> matches = zav::matchesWhole(pattern, text);
    if (!matches) return "bad";
    return *matches ? "match" : "no";
}

class RegularExpressionTest : public tests::HandlerFixture {};

TEST_F(RegularExpressionTest, MatchesOnlyTheWholeText) {
    for (const Row& row : rows()) EXPECT_EQ(outcome(row.pattern, row.text), row.outcome) << row.line;
}

TEST_F(RegularExpressionTest, GivesUpWhenBacktrackingTakesTooLong) {
    EXPECT_EQ(zav::matchesWhole("^(a+)+$", std::string(40, 'a')), true);
    EXPECT_EQ(zav::matchesWhole("^(a+)+$", std::string(40, 'a') + "b"), false) << "it would take 10^12 steps";
}

}  // namespace
