#include "explain/Advice.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "Core/JobHandlers/CustomScenarioJobHandler.h"
#include "lint/Lint.h"
#include "lint/Remedies.h"
#include "lint/Site.h"

namespace explain {

namespace {

using Kind = Event::Kind;

constexpr std::size_t maximumFindings = 5;  // of a file
constexpr std::string_view notThisPhone = " is not this phone's";

bool begins(const std::string& text, std::string_view what) { return text.compare(0, what.size(), what) == 0; }
bool ends(const std::string& text, std::string_view what) {
    return text.size() >= what.size() && text.compare(text.size() - what.size(), what.size(), what) == 0;
}
bool contains(const std::string& text, std::string_view what) { return text.find(what) != std::string::npos; }

std::string digitsOf(const std::string& address) {
    std::string digits;
    for (const char c : address) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0)
            digits += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return digits;
}

// The text between `before` and `after`; empty if it is not there.
std::string between(const std::string& text, std::string_view before, std::string_view after) {
    const std::size_t begin = text.find(before);
    if (begin == std::string::npos) return "";
    const std::size_t end = text.find(after, begin + before.size());
    return end == std::string::npos ? "" : text.substr(begin + before.size(), end - begin - before.size());
}

class Adviser {
 public:
    Adviser(Explanation& explanation, const AdviceSource& source) : explanation_(explanation), source_(source) {}

    void run() {
        std::vector<Event> events = std::exchange(explanation_.events, {});
        for (Event& event : events) {
            if (isWithoutFile(event)) continue;  // the next line names the URL
            if (event.kind == Kind::dropped) nameAddress(event);
            explanation_.events.push_back(std::move(event));
            advise(Event(explanation_.events.back()));
        }
    }

 private:
    void add(const Event& about, const std::string& text) {
        explanation_.events.push_back({Kind::advice, about.depth, "", "", text, ""});
    }

    // The daemon tries to write before it asks, and fails where a URL names no file.
    static bool isWithoutFile(const Event& event) {
        return event.kind == Kind::log && begins(event.value, "Cannot write ") && contains(event.value, "/: ");
    }

    void nameAddress(Event& event) const {
        const std::string address = between(event.reason, "macAddress '", "'");
        const std::size_t at = event.reason.find(notThisPhone);
        if (at == std::string::npos || source_.macAddress.empty()) return;
        const bool isSame = digitsOf(address) == digitsOf(source_.macAddress);
        event.reason.replace(at, notThisPhone.size(),
                             isSame ? " is not written as this phone's, " + source_.macAddress
                                    : std::string(notThisPhone) + ", " + source_.macAddress);
    }

    void advise(const Event& event) {
        switch (event.kind) {
            case Kind::file:
                return adviseFile(event);
            case Kind::refused:
                return adviseSetting(event);
            case Kind::log:
                return adviseLog(event);
            default:
                return;
        }
    }

    void adviseFile(const Event& event) {
        // What the phone skips without a line in its log.
        static const std::set<std::string> silent{"value-as-text", "item-content", "empty-item",      "lost-element",
                                                  "no-jobs",       "hidden-mix",   "unknown-category"};
        file_ = event;
        if (begins(event.reason, "200 ")) lintFile(event, silent);
        const auto unknown = lint::unknownPlaceholder(event.subject);
        if (unknown && !begins(event.reason, "200 ")) {
            add(event, lint::quoted(*unknown) + " is not a placeholder: " + lint::placeholderRemedy(*unknown));
        }
    }

    void adviseSetting(const Event& event) {
        if (contains(event.reason, ": unknown key: ")) {
            const std::string remedy = lint::keyRemedy(*source_.settings, event.subject);
            if (!remedy.empty()) add(event, remedy);
        } else if (contains(event.reason, ": read-only: ")) {
            add(event, "a provisioning file may not write this key: remove the setting");
        } else if (event.reason == Event::missingAttribute) {
            lintFile(event, {"missing-attribute", "missing-value", "misspelt-attribute"});
        }
    }

    void adviseLog(const Event& event) {
        const std::string& text = event.value;
        const std::string step = between(text, "Custom step type '", "' not implemented");
        if (ends(text, " is corrupted")) {
            lintFile(event, {});
        } else if (step == "???" || ends(text, "an exception was thrown: map::at")) {
            lintFile(event, {"missing-attribute", "misspelt-attribute"});
        } else if (!step.empty()) {
            const std::string near = lint::suggestion(step, zav::CustomScenarioJobHandler::stepTypes());
            add(event,
                near.empty() ? "types are certificate, UnlockAllFunctionKeys, Redirect and LocalPhoneBook" : near);
        } else if (begins(text, "Error downloading ") && isUrlWithoutFile(text)) {
            add(event, R"(the URL names a server and no file: begin it with "/" or with https://)");
        }
    }

    static bool isUrlWithoutFile(const std::string& text) {
        const std::string quoted = between(text, "file '", "'");
        const std::string url = quoted.empty() ? text.substr(text.find(": ") + 1) : quoted;
        return contains(url, "://") && ends(url, "/");
    }

    // What lint finds in the file that was read last. Empty `rules`: any.
    void lintFile(const Event& about, const std::set<std::string>& rules) {
        if (!file_) return;
        const std::string phonesPath = between(about.value + " ", "File ", " is corrupted");
        std::error_code error;
        const bool isLocal = std::filesystem::is_regular_file(file_->value, error);
        if (!isLocal && phonesPath.empty()) return;
        const std::string path = isLocal ? file_->value : source_.fileOnDisk(phonesPath);
        const lint::Content content = lint::readFile(path);
        if (!content.bytes) return;
        lint::Options options;
        options.settings = source_.settings;
        options.keyFile = source_.keyFile;
        const std::string name = isLocal ? path : file_->subject;
        std::size_t count = 0;
        for (const lint::Finding& finding : lint::lintDocument(name, *content.bytes, options)) {
            if (!rules.empty() && rules.count(finding.rule) == 0) continue;
            const std::string text = textOf(finding);
            if (!advised_.insert(text).second) continue;
            if (count++ < maximumFindings) add(about, text);
        }
        if (count > maximumFindings) add(about, "zavctl lint " + name + " shows all " + std::to_string(count));
    }

    static std::string textOf(const lint::Finding& finding) {
        std::string text = finding.file;
        if (finding.line != 0) text += ":" + std::to_string(finding.line);
        if (finding.column != 0) text += ":" + std::to_string(finding.column);
        return text + ": " + finding.message + "; " + finding.fix;
    }

    Explanation& explanation_;
    const AdviceSource& source_;
    std::optional<Event> file_;      // the last that was asked for
    std::set<std::string> advised_;  // by lint: each finding once
};

}  // namespace

void addAdvice(Explanation& explanation, const AdviceSource& source) { Adviser(explanation, source).run(); }

}  // namespace explain
