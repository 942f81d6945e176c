// Makes and packs the files of many phones: one row of a table, one phone. Rows are independent: a row that is wrong is
// listed and written not at all, the others are. As with pack, only what differs is written, and each file whole.
//
// A column named "mac" (in any case) must hold MAC addresses; it gives the further placeholders {MACC} and {MACD}, the
// address with ":" and with "-", as in the URL of the provisioning server.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pack/Pack.h"

namespace pack {

struct FleetOptions {
    std::string table;
    std::string templatePath;
    std::string place;  // of a single template file below the output folder; "": its own name
    std::string to;
    std::string keyFile;
    bool force = false;   // publishes in spite of findings
    bool dryRun = false;  // writes nothing
    Check check;          // may be empty
    Progress progress;
};

struct RowFailure {
    std::size_t row = 0;   // as a spreadsheet counts
    std::size_t line = 0;  // of the table
    std::string reason;
};

struct FleetResult {
    std::vector<std::string> warnings;
    std::size_t rows = 0;
    std::size_t written = 0;    // files; in a dry run those that would be
    std::size_t unchanged = 0;  // files
    std::vector<RowFailure> failures;
};

/// Throws Error for whatever concerns all rows; then nothing is written.
FleetResult fleet(const FleetOptions& options);

}  // namespace pack
