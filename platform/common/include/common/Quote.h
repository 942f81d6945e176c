// Quotes text for log lines: single quotes, control bytes escaped.
#pragma once

#include <string>

#include "debug/Debug.h"

/// 'text'
inline std::string quote(const std::string& text) { return "'" + dbg::escapeControls(text) + "'"; }

/// 'first'SEPARATOR'second', as in 'name'='value'.
inline std::string quote(const std::string& first, const std::string& second, const std::string& separator) {
    return quote(first) + separator + quote(second);
}
