#include "lint/Print.h"

#include "debug/Debug.h"
#include "lint/Source.h"

namespace lint {

namespace {

constexpr char indent[] = "    ";

std::string counted(std::size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

std::string toText(const Finding& finding) {
    std::string text = dbg::escapeControls(finding.file);
    if (finding.line != 0) text += ":" + std::to_string(finding.line);
    if (finding.column != 0) text += ":" + std::to_string(finding.column);
    text += std::string(": ") + nameOf(finding.level) + ": " + dbg::escapeControls(finding.message) + " [" +
            finding.rule + "]\n";
    if (!finding.excerpt.empty()) {
        text += indent + finding.excerpt + "\n";
        if (finding.caret != 0) text += indent + std::string(finding.caret - 1, ' ') + "^\n";
    }
    // The names of files may be any bytes.
    return validUtf8(text + "  fix: " + dbg::escapeControls(finding.fix) + "\n");
}

std::string summaryOf(const Report& report) {
    const std::size_t errors = report.count(Level::error);
    const std::size_t warnings = report.count(Level::warning);
    const std::size_t notes = report.count(Level::note);
    const std::string files = " in " + counted(report.files, "file");
    std::string text;
    for (const auto& [count, name] : {std::pair(errors, "error"), {warnings, "warning"}, {notes, "note"}}) {
        if (count != 0) text += (text.empty() ? "" : ", ") + counted(count, name);
    }
    return (text.empty() ? "nothing found" : text) + files;
}

}  // namespace lint
