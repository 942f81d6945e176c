#include "explain/Report.h"

#include <iomanip>
#include <string>
#include <utility>

#include "Core/Constants.h"
#include "lint/Source.h"

namespace explain {

namespace {

using Kind = Event::Kind;

constexpr int wordWidth = 10;
constexpr unsigned indentation = 2;

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::file:
            return "file";
        case Kind::dropped:
            return "dropped";
        case Kind::started:
            return "job";
        case Kind::ended:
            return "result";
        case Kind::chosen:
            return "chosen";
        case Kind::written:
            return "set";
        case Kind::refused:
            return "refused";
        case Kind::firmware:
            return "firmware";
        case Kind::advice:
            return "advice";
        case Kind::log:
            break;
    }
    return "log";
}

std::string textOf(const Event& event) {
    const std::string& reason = event.reason;
    switch (event.kind) {
        case Kind::file:
            return event.subject + (event.value.empty() ? "" : " (" + event.value + ")") + ": " + reason;
        case Kind::dropped:
            return event.subject + ": " + reason;
        case Kind::started:
            return event.subject + " (" + event.value + ")";
        case Kind::ended:
            return event.subject + ": " + event.value;
        case Kind::chosen:
            return (event.value.empty() ? "" : event.value + ": ") + reason;
        case Kind::written:
            return event.subject + ": " + quoted(event.before) + " -> " + quoted(event.value);
        case Kind::refused:
            if (reason == Event::missingAttribute) return event.subject + ": " + reason;
            return event.subject + " = " + quoted(event.value) + ": " + reason;
        case Kind::firmware:
            return event.value + (event.reason.empty() ? "" : ": " + reason) +
                   (event.subject.empty() && event.before.empty()
                        ? ""
                        : " (offered " + quoted(event.subject) + ", running " + quoted(event.before) + ")");
        case Kind::advice:
        case Kind::log:
            break;
    }
    return event.value;
}

void printLine(std::ostream& out, const std::string& word, unsigned depth, const std::string& text) {
    out << std::left << std::setw(wordWidth) << word << std::string(std::size_t{depth} * indentation, ' ')
        << lint::validUtf8(dbg::escapeControls(text)) << "\n";
}

Json::Value toJson(const Event& event) {
    Json::Value object;
    object["event"] = nameOf(event.kind);
    object["depth"] = event.depth;
    const auto add = [&object](const char* name, const std::string& text) { object[name] = lint::validUtf8(text); };
    switch (event.kind) {
        case Kind::file:
            add("url", event.subject), add("file", event.value), add("outcome", event.reason);
            break;
        case Kind::dropped:
            add("what", event.subject), add("reason", event.reason);
            break;
        case Kind::started:
            add("job", event.subject), add("handler", event.value);
            break;
        case Kind::ended:
            add("job", event.subject), add("result", event.value);
            break;
        case Kind::chosen:
            add("job", event.subject), add("url", event.value), add("reason", event.reason);
            break;
        case Kind::written:
            add("key", event.subject), add("before", event.before), add("value", event.value);
            add("source", event.reason);
            break;
        case Kind::refused:
            add("key", event.subject), add("value", event.value), add("reason", event.reason);
            break;
        case Kind::firmware:
            add("offered", event.subject), add("running", event.before), add("decision", event.value);
            add("reason", event.reason);
            break;
        case Kind::advice:
            add("text", event.value);
            break;
        case Kind::log:
            add("level", event.subject), add("text", event.value);
            break;
    }
    return object;
}

const char* levelName(unsigned level) {
    if (level == dbg::Debug::levelError) return "error";
    return level == dbg::Debug::levelWarning ? "warning" : "info";
}

}  // namespace

void print(std::ostream& out, const Explanation& explanation) {
    for (const std::string& note : explanation.notes) printLine(out, "note", 0, note);
    for (const Event& event : explanation.events) {
        printLine(out, event.kind == Kind::log ? event.subject : nameOf(event.kind), event.depth, textOf(event));
    }
    const std::string http = explanation.httpCode.empty() ? "" : " (HTTP " + explanation.httpCode + ")";
    printLine(out, "status", 0, explanation.status.empty() ? "no pass" : explanation.status + http);
}

Json::Value toJson(const Explanation& explanation) {
    Json::Value object;
    object["url"] = lint::validUtf8(explanation.url);
    object["status"] = explanation.status;
    object["httpCode"] = explanation.httpCode;
    for (const char* list : {"notes", "events", "log"}) object[list] = Json::Value(Json::arrayValue);
    for (const std::string& note : explanation.notes) object["notes"].append(lint::validUtf8(note));
    for (const Event& event : explanation.events) object["events"].append(toJson(event));
    for (const dbg::LogLine& line : explanation.log) {
        Json::Value& entry = object["log"].append(Json::Value());
        entry["level"] = levelName(line.level);
        entry["source"] = line.source;
        entry["line"] = line.line;
        entry["text"] = lint::validUtf8(line.text);
    }
    return object;
}

bool succeeds(const Explanation& explanation) {
    return explanation.status == zav::constants.successWord || explanation.status == zav::constants.partSuccessWord;
}

}  // namespace explain
