#include "common/Quote.h"

#include "debug/Debug.h"

std::string quote(const std::string& text) { return "'" + dbg::escapeControls(text) + "'"; }

std::string quote(const std::string& first, const std::string& second, const std::string& separator) {
    return quote(first) + separator + quote(second);
}
