#include "common/PathRoot.h"

#include <algorithm>
#include <stdexcept>

#include "common/Ascii.h"

namespace common {

namespace {

// Never destroyed, because threads may still open files while the process exits.
std::string& pathRoot() {
    static auto* const root = new std::string;
    return *root;
}

bool isPlain(char c) { return isAsciiLetterOrDigit(c) || c == '/' || c == '.' || c == '_' || c == '-'; }

}  // namespace

void setPathRoot(const std::string& root) {
    if (!root.empty() && (root.front() != '/' || !std::all_of(root.begin(), root.end(), isPlain))) {
        throw std::invalid_argument("cannot be the root of paths: " + root);
    }
    pathRoot() = root;
}

std::string rooted(const std::string& path) { return path.empty() || path.front() != '/' ? path : pathRoot() + path; }

}  // namespace common
