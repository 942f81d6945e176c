// Quotes text for log lines: single quotes, control bytes escaped.
#pragma once

#include <string>

/// 'text'
std::string quote(const std::string& text);

/// 'first'SEPARATOR'second', as in 'name'='value'.
std::string quote(const std::string& first, const std::string& second, const std::string& separator);
