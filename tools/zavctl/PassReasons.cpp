#include "PassReasons.h"

#include <algorithm>
#include <utility>

#include "common/UrlSyntax.h"
#include "lint/Source.h"
#include "propertyprotocol/Utf8.h"

namespace zavctl {

namespace {

constexpr std::string_view channel = "ZAV";
constexpr std::string_view workerSource = "Core/ProvisioningWatchdog/ProvisioningWorker:";
constexpr std::size_t maximumText = 400;
constexpr char noCategory[] = "No category has a type that the phone knows";
constexpr char noJobs[] = "0 jobs were found in the file";

bool startsWith(std::string_view text, std::string_view begin) { return text.substr(0, begin.size()) == begin; }

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// A refused setting's line without the value, if that may be a secret: 'KEY'='VALUE'.
std::string withoutSecret(std::string text) {
    const std::size_t middle = text.find("'='");
    const std::size_t begin = middle == std::string::npos || middle == 0 ? middle : text.rfind('\'', middle - 1);
    if (begin == std::string::npos || begin == middle) return text;
    const std::string key = text.substr(begin + 1, middle - begin - 1);
    const std::size_t value = middle + 3;
    const std::size_t end = std::min(text.rfind("' (exception "), text.rfind('\''));
    if (end == std::string::npos || end <= value) return text;
    const std::string shown = text.substr(value, end - value);
    const bool isUrl = shown.find("://") != std::string::npos;
    if (!lint::soundsSecret(key) && !isUrl) return text;
    return text.replace(value, end - value, lint::soundsSecret(key) ? "***" : common::withoutPassword(shown));
}

// Removes the next word and the blank behind it.
std::string_view takeWord(std::string_view& line) {
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

// What is shown of a text: valid in JSON, and not endless.
std::string shortened(std::string_view text) {
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    const std::string bytes(text.substr(0, 2 * maximumText));
    std::string shown;
    for (std::size_t at = 0; at < bytes.size() && shown.size() < maximumText;) {
        const std::size_t length = propertyprotocol::utf8SequenceLength(bytes, at);
        shown += length == 0 ? "?" : bytes.substr(at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return text.size() > maximumText ? shown + "…" : shown;
}

// A job was found, but nothing ran it.
bool isJobNotRun(std::string_view text) {
    return text == "Unknown job type !" ||
           (startsWith(text, "Job: ") && text.find(" is nested more than ") != std::string_view::npos);
}

// After these lines, what was explained before explains nothing any more.
bool beginsFile(std::string_view text) {
    return startsWith(text, "Provisioning XML from: ") || startsWith(text, "Found job with URL: ") ||
           (startsWith(text, "Found ") && text.find(" job type with URL: ") != std::string_view::npos);
}

}  // namespace

std::optional<PassReasons::LogLine> PassReasons::parse(std::string_view line) {
    takeWord(line);  // the time
    if (takeWord(line) != channel) return std::nullopt;
    const std::string_view level = takeWord(line);
    if (level != "error" && level != "warning" && level != "info") return std::nullopt;
    const std::string_view source = takeWord(line);
    if (source.find(':') == std::string_view::npos) return std::nullopt;
    return LogLine{level, source, line};
}

void PassReasons::add(std::string_view line) {
    const std::optional<LogLine> parsed = parse(line);
    if (!parsed) return;
    const bool ofWorker = startsWith(parsed->source, workerSource);
    // Only the outermost pass says how it ended.
    if (ofWorker && (parsed->text == "Provisioning succeeded. " || parsed->text == "Provisioning failed. ")) {
        last_ = std::exchange(pass_, {});
        ++ended_;
        return;
    }
    if (ofWorker && parsed->text == "Provisioning Started") ++pass_.started;
    if (ofWorker && parsed->text == "Provisioning Finished") ++pass_.finished;
    if (parsed->level == "info") follow(*parsed);
    report(*parsed);
}

std::size_t PassReasons::endedPasses() const { return ended_ + (isComplete() ? 1 : 0); }

const std::vector<Reason>& PassReasons::reasons() const {
    return isComplete() || ended_ == 0 ? pass_.reasons : last_.reasons;
}

void PassReasons::follow(const LogLine& line) {
    const std::string_view text = line.text;
    if (startsWith(text, "-----Finishing MasterJobHandler") && pass_.categoriesPending) conclude(noCategory);
    if (startsWith(text, "-----Finishing ") || beginsFile(text)) concludeNoJobs();
    if (startsWith(text, "Found 0 valid provisioning job/s.")) {
        pass_.pending = std::string();
        concludeNoJobs();
    }
    if (beginsFile(text) || startsWith(text, "+++++ Starting ") || startsWith(text, "Executing step: ")) {
        pass_.explained = false;
    }
    if (startsWith(text, "+++++ Starting ") || startsWith(text, "Found ")) pass_.pending.reset();
    if (startsWith(text, "+++++ Starting ")) pass_.categoriesPending = endsWith(text, " MasterJobHandler");
    if (startsWith(text, "Job Type: ")) pass_.categoriesPending = false;
    const std::string_view verified = " verified positively.";
    if (startsWith(text, "File ") && endsWith(text, verified)) {
        const std::size_t begin = std::string_view("File").size();
        pass_.pending = std::string(text.substr(begin, text.size() - begin - verified.size()));
    }
}

void PassReasons::concludeNoJobs() {
    if (pass_.pending) conclude(noJobs + *std::exchange(pass_.pending, std::nullopt));
}

// With advice only if nothing else explains it.
void PassReasons::conclude(const std::string& text) {
    append(text, "warning", text, pass_.explained ? nullptr : findAdvice(text));
    pass_.explained = true;
}

void PassReasons::report(const LogLine& line) {
    const Advice* const advice = findAdvice(line.text);
    const Role role = advice == nullptr ? Role::reason : advice->role;
    if (line.level == "info" && role != Role::reasonAtAnyLevel) return;
    if (role == Role::ignored || (role == Role::consequence && pass_.explained)) return;
    if (isJobNotRun(line.text)) pass_.pending.reset();
    const std::string kind = advice == nullptr ? std::string(line.source) : advice->line;
    append(kind, line.level == "info" ? "warning" : line.level, line.text, role == Role::detail ? nullptr : advice);
    if (role != Role::detail) pass_.explained = true;
}

void PassReasons::append(const std::string& kind, std::string_view level, std::string_view text, const Advice* advice) {
    auto found = pass_.kinds.find(kind);
    if (found == pass_.kinds.end()) {
        if (pass_.reasons.size() == maximumKinds) return;
        found = pass_.kinds.emplace(kind, pass_.reasons.size()).first;
        pass_.reasons.push_back({std::string(level), {}, 0, advice == nullptr ? "" : plainRemedy(*advice)});
    }
    Reason& reason = pass_.reasons[found->second];
    std::set<std::string>& known = pass_.known[kind];
    const std::string shown = shortened(withoutSecret(std::string(text)));
    if (known.count(shown) > 0) return;
    if (known.size() == maximumTexts) {
        ++reason.more;
        return;
    }
    known.insert(shown);
    reason.texts.push_back(shown);
}

}  // namespace zavctl
