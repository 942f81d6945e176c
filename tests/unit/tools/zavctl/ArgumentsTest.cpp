// Command lines in any order: `set` writes exactly the value on the command line, or nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "Phone.h"

namespace zavctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Words = std::vector<std::string>;

const Words plainKeys{"NET.MAC.Address", "a", "set", "get", "help", "{}", "[a,b]", "++", "K=V", ""};
const Words optionLikeKeys{"-k", "-5", "--json", "--host", "--help", "--"};
const Words plainValues{"",      "-",    "-1",       "-5.5",  "--wait", "--timeout=3", "-x",      "[a,b]",
                        "{}",    "%%",   "a b",      "get",   "set",    "--frob",      "++",      "K=V",
                        "\"q\"", "a\nb", "\xc3\xa9", "VALUE", "KEY",    "given",       "--jsonx", "---"};
const Words ownOptions{"--json", "--json=false", "--host=x", "-h", "--help", "--version"};
const std::vector<Words> optionWords{{"--json"}, {"--json=true"}, {"--host", "other:1"}, {"--host=other:1"}};

// `set KEY VALUE` with options and "--" in four places: before the command, the key and the value, and at the end.
struct Line {
    std::string key;
    std::string value;
    std::array<std::vector<Words>, 4> options;
    std::array<bool, 4> separator{};  // after the options of that place

    Words words() const {
        Words all;
        const Words positionals{"set", key, value};
        for (std::size_t place = 0; place < 4; ++place) {
            for (const Words& option : options.at(place)) all.insert(all.end(), option.begin(), option.end());
            if (separator.at(place)) all.emplace_back("--");
            if (place < 3) all.push_back(positionals.at(place));
        }
        return all;
    }

    bool isOwnOption(const std::string& word) const {
        return std::find(ownOptions.begin(), ownOptions.end(), word) != ownOptions.end();
    }
    std::size_t firstSeparator() const {
        return static_cast<std::size_t>(std::find(separator.begin(), separator.end(), true) - separator.begin());
    }
    std::size_t hosts() const {
        std::size_t count = 0;
        for (const auto& place : options) {
            for (const Words& option : place) count += option.front().compare(0, 6, "--host") == 0 ? 1U : 0U;
        }
        return count;
    }

    /// Whether the line is unambiguous: at most one separator, after the command; options before the separator only; no
    /// contradictory options; and a value that is also an option follows the separator.
    bool isUnambiguous() const {
        const std::size_t literal = firstSeparator();
        if (literal == 0 || hosts() > 1 || std::count(separator.begin(), separator.end(), true) > 1) return false;
        for (std::size_t place = literal + 1; place < 4; ++place) {
            if (!options.at(place).empty()) return false;
        }
        return literal <= 2 || !isOwnOption(value);
    }
    bool asksForHelp() const {
        return firstSeparator() > 2 && (value == "-h" || value == "--help" || value == "--version");
    }
};

class Lines {
 public:
    Line next() {
        Line line;
        for (auto& place : line.options) {
            for (std::size_t count = below(4) == 0 ? below(3) : 0; count > 0; --count) {
                place.push_back(optionWords.at(below(optionWords.size())));
            }
        }
        for (bool& separator : line.separator) separator = below(5) == 0;
        const bool isOptionLike = line.separator[1] && below(3) == 0;
        line.key = isOptionLike ? one(optionLikeKeys) : one(plainKeys);
        line.value = below(3) == 0 ? one(ownOptions) : one(plainValues);
        return line;
    }
    std::string one(const Words& words) { return words.at(below(words.size())); }
    std::size_t below(std::size_t limit) { return random_() % limit; }

 private:
    std::mt19937 random_{20240229};
};

fakes::FakeProperties::Values allKeys() {
    fakes::FakeProperties::Values values;
    for (const Words& keys : {plainKeys, optionLikeKeys}) {
        for (const std::string& key : keys) values[key] = "as before";
    }
    return values;
}

TEST(Arguments, SetWritesTheValueOnTheCommandLineOrNothing) {
    Lines lines;
    int unambiguous = 0;
    for (int number = 0; number < 4000; ++number) {
        const Line line = lines.next();
        const Words words = line.words();
        SCOPED_TRACE(testing::PrintToString(words));
        Phone phone(allKeys());
        const ExitCode code = phone.run(words);
        if (line.isUnambiguous() && !line.asksForHelp()) {
            ++unambiguous;
            ASSERT_EQ(code, ExitCode::done) << phone.err.str() << phone.out.str();
            ASSERT_THAT(phone.properties->writes(), ElementsAre(fakes::PropertyWrite{line.key, "zavctl", line.value}));
            ASSERT_EQ(phone.bus->hosts.back(), line.hosts() == 1 ? "other:1" : "localhost:1883");
        } else {
            ASSERT_THAT(phone.properties->writes(), IsEmpty());
            ASSERT_THAT(phone.bus->hosts, IsEmpty());
            ASSERT_TRUE(code == ExitCode::usage || (line.asksForHelp() && code == ExitCode::done));
        }
    }
    EXPECT_GT(unambiguous, 1000) << "too few lines are unambiguous";
}

TEST(Arguments, SetWritesOnlyArgumentsOfTheCommandLine) {
    Words pool{"set", "set", "--", "--host", "h:1", "-h", "--json", "KEY"};
    for (const Words& more : {plainKeys, optionLikeKeys, plainValues, ownOptions}) {
        pool.insert(pool.end(), more.begin(), more.end());
    }
    Lines lines;
    int written = 0;
    for (int number = 0; number < 6000; ++number) {
        Words words{"set"};
        for (std::size_t count = lines.below(6); count > 0; --count) words.push_back(lines.one(pool));
        if (lines.below(4) == 0) std::rotate(words.begin(), words.begin() + 1, words.end());
        SCOPED_TRACE(testing::PrintToString(words));
        Phone phone(allKeys());
        const ExitCode code = phone.run(words);
        const std::vector<fakes::PropertyWrite> writes = phone.properties->writes();
        if (writes.empty()) {
            ASSERT_TRUE(code == ExitCode::usage || code == ExitCode::noSuchKey || code == ExitCode::done);
            continue;
        }
        ++written;
        ASSERT_EQ(code, ExitCode::done);
        ASSERT_EQ(writes.size(), 1U);
        const auto key = std::find(words.begin() + 1, words.end(), writes[0].key);
        ASSERT_NE(key, words.end());
        ASSERT_NE(std::find(key + 1, words.end(), writes[0].value), words.end());
    }
    EXPECT_GT(written, 200) << "too few lines write";
}

TEST(Arguments, SetAcceptsASeparatorBeforeKeyAndValue) {
    const std::vector<std::pair<Words, std::string>> rows{
        {{"set", "a", "--"}, "--"},     {{"set", "a", "--", "--"}, "--"},         {{"set", "--", "a", "--"}, "--"},
        {{"set", "--", "a", "x"}, "x"}, {{"set", "a", "--", "--json"}, "--json"}, {{"set", "a", "x", "--"}, "x"},
        {{"set", "a", "--", "x"}, "x"}};
    for (const auto& [words, value] : rows) {
        Phone phone(allKeys());
        EXPECT_EQ(phone.run(words), ExitCode::done) << testing::PrintToString(words);
        EXPECT_THAT(phone.properties->writesTo("a"), ElementsAre(value)) << testing::PrintToString(words);
        EXPECT_EQ(phone.out.str(), "") << "--json as a value is not the option";
    }
}

TEST(Arguments, EveryCommandTakesItsArgumentsLiterally) {
    for (const std::string word : {"-k", "-5", "--json", "--help", "--host", "{}", "[a,b]", "++", "set"}) {
        SCOPED_TRACE(word);
        Phone phone(allKeys());
        EXPECT_EQ(phone.run({"get", "--", word}), ExitCode::done);
        EXPECT_THAT(phone.properties->reads(), ElementsAre(word));
        EXPECT_EQ(phone.out.str(), "as before\n");
        for (const char* command : {"list", "keys"}) {
            phone.out.str("");
            EXPECT_EQ(phone.run({command, "--", word}), ExitCode::done);
            EXPECT_EQ(phone.out.str(), word + (command == std::string("list") ? "=as before\n" : "\n"));
        }
        for (const char* command : {"import", "restore", "diff"}) {
            EXPECT_EQ(phone.run({command, "--", "/no/such/" + word}), ExitCode::failed);
            EXPECT_THAT(phone.err.str(), HasSubstr("/no/such/" + word + ": cannot be opened"));
        }
    }
    Phone phone(allKeys());
    EXPECT_EQ(phone.run({"get", "a", "--"}), ExitCode::done);
    EXPECT_EQ(phone.run({"get", ""}), ExitCode::done);
    EXPECT_EQ(phone.run({"get", "--json", "--", "a"}), ExitCode::done);
    EXPECT_EQ(phone.run({"diff", "/no/such/a", ""}), ExitCode::failed);
}

TEST(Arguments, ErrorsNameTheWrongArgument) {
    const std::vector<std::pair<Words, std::string>> rows{
        {{"--", "set", "a", "b"}, "the command must come before \"--\""},
        {{"set", "a"}, "VALUE is required (see zavctl set --help)"},
        {{"set", "K=V"}, "VALUE is required"},
        {{"set", "--", "a"}, "VALUE is required"},
        {{"set", "a", "--json", "--"}, "VALUE is required"},
        {{"get"}, "KEY is required (see zavctl get --help)"},
        {{"get", "--"}, "KEY is required"},
        {{"get", "--", "a", "b"}, "unexpected argument \"b\""},
        {{"status", ""}, "unexpected argument \"\""},
        {{"list", "-5"}, "unknown option \"-5\" (see zavctl list --help)"},
        {{"set", "-5", "a", "b"}, "unknown option \"-5\""},
        {{"get", "a", "--wait"}, "unknown option \"--wait\""},
        {{"frob", "--help"}, "unknown command \"frob\" (see zavctl --help)"},
        {{"--host", "a", "--host", "b", "get", "a"}, "--host"},
        {{"get", "a", "--host"}, "--host"},
        {{"get", "a", "--host="}, "--host"},
        {{"get", "a", "--host", ""}, "--host: \"\" is not a broker's address: the host is missing"},
        {{"get", "a", "--host", "h:0"}, "--host: \"h:0\" is not a broker's address: the port must be a number"},
        {{"get", "a", "--host", "[::1"}, "--host: \"[::1\" is not a broker's address: the closing bracket is missing"},
        {{"diff", "--all", "a", "b"}, "--all compares a file with the phone, not with another file"},
        {{"provision", "--timeout", "soon"}, "--timeout"}};
    for (const auto& [words, reason] : rows) {
        Phone phone(allKeys());
        EXPECT_EQ(phone.run(words), ExitCode::usage) << testing::PrintToString(words);
        EXPECT_THAT(phone.err.str() + phone.out.str(), HasSubstr(reason));
        EXPECT_THAT(phone.bus->hosts, IsEmpty()) << testing::PrintToString(words);
        EXPECT_THAT(phone.properties->writes(), IsEmpty());
    }
}

}  // namespace
}  // namespace zavctl
