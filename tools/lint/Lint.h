// Finds what the daemon would refuse, drop, skip or silently ignore in provisioning files, before they are published.
//
// The rules are the daemon's own: its XML reader, its walk over the jobs, its tables and its checks run over the files,
// beside the catalogue's rules for values. Needs no phone. Any bytes give findings, never an exception; only options
// that cannot be used and a lack of memory or descriptors throw (LintException). Reads files and starts openssl for
// encrypted ones; fetches nothing itself. Threads: any; calls share nothing. The daemon's code may log: switch the log
// off with dbg::Debug::setDebugLevelMask.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace lint {

class Settings;  // the keys of a phone: lint/Settings.h

class LintException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

enum class Level { note, warning, error };

/// "note", "warning" or "error".
const char* nameOf(Level level);

/// One mistake. `rule` is the identifier of a row of the rule table (lint/Rules.h).
struct Finding {
    Level level = Level::error;
    std::string rule;
    std::string file;     // as it was named to lint: a path, or a URL
    unsigned line = 0;    // from 1; 0: the file as a whole
    unsigned column = 0;  // from 1, in characters; 0: the line as a whole
    std::string message;  // what is wrong here, in one sentence; contains no secrets
    std::string fix;      // what to do about it
    std::string excerpt;  // the offending line, or a part of it; secrets replaced by "***"
    unsigned caret = 0;   // column in `excerpt`, from 1; 0: none
};

/// What is known about the phone that the files are for.
struct Phone {
    std::string macAddress;                     // as in NET.MAC.Address; empty: unknown
    std::map<std::string, std::string> values;  // of properties: lock flags, and what placeholders in URLs stand for
};

/// What fetching a URL brought.
struct Fetched {
    std::optional<std::string> bytes;  // none: `error` says why
    std::string error;
};

struct Options {
    /// Null: settings are not checked against a catalogue.
    std::shared_ptr<const Settings> settings;
    /// The phone's key file for encrypted files; empty: none.
    std::string keyFile;
    /// None: any phone.
    std::optional<Phone> phone;
    /// URL under which the files are published, such as the phone's provisioning server. May be empty.
    std::string baseUrl;
    /// Downloads a URL; null: nothing is downloaded. Called on the calling thread.
    std::function<Fetched(const std::string& url)> fetch;
    /// Beyond this many findings a file's others are left out.
    std::size_t findingsPerFile = 1000;
};

/// How the daemon comes to a document.
enum class Role {
    byRoot,     // what its root says
    initial,    // the initial file of a pass
    jobFile,    // named by a category
    published,  // chosen from the list of a job file
};

/// The findings of one document by itself, in the order of their positions. `name` goes into Finding::file.
std::vector<Finding> lintDocument(const std::string& name, const std::string& bytes, const Options& options,
                                  Role role = Role::byRoot);

struct Report {
    std::vector<Finding> findings;  // by file, then by position
    std::size_t files = 0;          // that were read
    std::size_t count(Level level) const;
};

/// Lints files, folders, URLs and, as "-", standard input. What a file refers to is followed: below the folder of the
/// initial file, or below the base URL. In a folder every file whose name ends in ".xml" is linted. Uses two threads.
/// Throws LintException if a path cannot be read.
Report lintPaths(const std::vector<std::string>& paths, const Options& options);

}  // namespace lint
