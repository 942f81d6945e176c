#include "lint/Lint.h"

#include <algorithm>

#include "lint/Inspection.h"
#include "lint/Passes.h"
#include "lint/Site.h"
#include "xml/Library.h"

namespace lint {

const char* nameOf(Level level) {
    if (level == Level::note) return "note";
    return level == Level::warning ? "warning" : "error";
}

std::size_t Report::count(Level level) const {
    return static_cast<std::size_t>(std::count_if(findings.begin(), findings.end(),
                                                  [level](const Finding& finding) { return finding.level == level; }));
}

std::vector<Finding> lintDocument(const std::string& name, const std::string& bytes, const Options& options,
                                  Role role) {
    return inspect(name, bytes, options, {role, "", travelsReadable(name, options)}).findings;
}

Report lintPaths(const std::vector<std::string>& paths, const Options& options) {
    const zav::xml::Library library;  // outlives the threads
    return Passes(listFiles(paths, options), options).report();
}

}  // namespace lint
