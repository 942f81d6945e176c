// The folder that stands in for the root of the phone's file system. The daemon sets none. A tool that runs the
// daemon's code on another machine sets a temporary folder, so that a pass reads and writes
// nothing outside it.
//
// Code keeps the phone's paths, and log lines show them; only the calls that open, list or remove something use
// `rooted`.
#pragma once

#include <string>

namespace common {

/// Call it while no other thread runs. An empty text removes the root. Throws std::invalid_argument if `root` is not an
/// absolute path of [A-Za-z0-9/._-], because shell commands contain rooted paths without quotes.
void setPathRoot(const std::string& root);

/// Where an absolute `path` of the phone is on this machine. Does not change a relative one. Any thread.
std::string rooted(const std::string& path);

}  // namespace common
