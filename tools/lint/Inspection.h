// One document by itself: what is wrong with it, and what it refers to.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lint/Lint.h"

namespace lint {

/// Another file that the phone fetches.
struct Reference {
    enum class Kind { jobFile, published, redirect, certificate, firmware, phoneBook };
    Kind kind;
    std::string url;  // as it is written
    bool isFetched;   // false: a published file that is not the newest
    Finding place;    // where it is written: file, position and excerpt
};

struct Circumstances {
    Role role = Role::byRoot;
    std::string passVersion;          // of the initial file; empty: any
    bool isReadableOnTheWay = false;  // it travels over plain http
};

struct Inspection {
    std::vector<Finding> findings;  // by position
    std::vector<Reference> references;
    Role role = Role::byRoot;  // what it was taken for
    std::string version;       // of the format; empty if the phone refuses the file
    std::size_t items = 0;
    bool isProvisioningFile = false;  // it has one of the roots
};

Inspection inspect(const std::string& name, const std::string& bytes, const Options& options,
                   const Circumstances& circumstances);

}  // namespace lint
