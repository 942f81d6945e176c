// Reads a table of comma-separated values (RFC 4180), strictly: a row that is read wrongly would configure a phone
// wrongly. The first row names the columns. Lines end with LF or CRLF; a byte order mark and empty lines are skipped.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace pack {

struct TableRow {
    std::size_t number = 0;           // as a spreadsheet counts: the row with the names of the columns is 1
    std::size_t line = 0;             // differs from the number behind a field with a line break
    std::vector<std::string> fields;  // as many as there are columns, unless `problem` says otherwise
    std::string problem;              // why the row cannot be used; "" if it can
};

struct Table {
    std::vector<std::string> columns;  // not empty, all different
    std::vector<TableRow> rows;
};

/// A mistake of one row is the row's problem. A mistake that leaves open where rows begin and end (quotes), or which
/// column is which, throws Error with the line. `name` is the table's name in error texts.
Table parseTable(const std::string& text, const std::string& name);

/// Throws Error if the file cannot be read, too.
Table readTable(const std::string& path);

}  // namespace pack
