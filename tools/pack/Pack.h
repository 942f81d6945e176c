// Publishes a folder of plain provisioning files, and the way back.
//
// pack encrypts what the phones decrypt, copies everything else, and writes only what differs from what is published:
// a published file that decrypts to the same bytes keeps its bytes and its time stamp. First everything is read and
// checked, then all files are written aside, then they are renamed to their places, so that a mistake or a full disk
// changes nothing. Files that others name come first, initial files last.
//
// The functions block for the disk, use all processors, and throw Error for whatever concerns the command as a whole.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace pack {

/// What is wrong with a file, or suspicious.
struct Finding {
    std::string file;      // path below the folder
    std::size_t line = 0;  // 0: the file as a whole
    bool isError = true;
    std::string text;
    bool canBeForced = true;  // Options::force publishes all the same
    std::size_t column = 0;   // 0: the line as a whole
    std::string rule{};       // that of the check; "": a finding of this library
};

/// FILE:LINE:COLUMN: LEVEL: TEXT [RULE], as far as they are known.
std::string toText(const Finding& finding);

/// Judges a plain provisioning file before it is published. Called from several threads.
using Check = std::function<std::vector<Finding>(const std::string& name, const std::string& bytes)>;

/// Told how much of a step is done. Called on the caller's thread.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

struct Options {
    std::string from;
    std::string to;
    std::string keyFile;
    bool force = false;           // pack: publishes in spite of findings; unpack: replaces files that differ
    bool dryRun = false;          // writes nothing
    bool removeVanished = false;  // pack only
    Check check;                  // pack only; may be empty
    Progress progress;
};

struct Result {
    std::vector<std::string> warnings;  // about the key
    std::vector<Finding> findings;
    bool refused = false;                // because of findings; nothing was written
    std::vector<std::string> encrypted;  // these four: what was written or, in a dry run, would be
    std::vector<std::string> decrypted;
    std::vector<std::string> copied;
    std::vector<std::string> removed;
    std::vector<std::string> vanished;  // published, but no longer in the folder; not removed
    std::vector<std::string> hidden;    // names that begin with "."; left out
    std::size_t unchanged = 0;
};

Result pack(const Options& options);

/// Decrypts what is encrypted and copies everything else, readable by the owner only. Refuses to replace files that
/// differ unless Options::force.
Result unpack(const Options& options);

}  // namespace pack
