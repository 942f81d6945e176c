// What zavctl lint says about a file by itself. The first line has the URL below which it is published.
#include "lint/Lint.h"

#include "debug/Debug.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "lint/Print.h"
#include "lint/Settings.h"
#include "propertyprotocol/Utf8.h"
#include "xml/Library.h"

namespace fuzz {

namespace {

void check(const ::lint::Finding& finding) {
    promise(!finding.rule.empty() && !finding.message.empty() && !finding.fix.empty(), "a finding says what and why");
    promise(propertyprotocol::isUtf8(::lint::toText(finding)), "findings are UTF-8");
    promise(finding.excerpt.find('\n') == std::string::npos, "an excerpt is one line");
    promise(finding.column == 0 || finding.line != 0, "a column is in a line");
    promise(finding.excerpt.size() <= 400, "an excerpt is short");
    promise(finding.caret <= 101, "the caret is below the excerpt");
}

}  // namespace

void lint(const std::string& input) {
    static const zav::xml::Library library;
    static const auto settings = ::lint::Settings::load(CATALOGUE);
    dbg::Debug::setDebugLevelMask("0");
    const auto [base, file] = splitLine(input);
    ::lint::Options options;
    options.settings = settings;
    options.baseUrl = base;
    for (const auto role : {::lint::Role::byRoot, ::lint::Role::initial, ::lint::Role::published}) {
        for (const ::lint::Finding& finding : ::lint::lintDocument("file.xml", file, options, role)) check(finding);
    }
}

}  // namespace fuzz
