#include "pack/Table.h"

#include <algorithm>
#include <set>

#include "pack/Error.h"
#include "pack/Files.h"
#include "propertyprotocol/Utf8.h"

namespace pack {

namespace {

constexpr std::size_t maxTableBytes = 1024UL * 1024 * 1024;
constexpr char utf8Mark[] = "\xef\xbb\xbf";

class Parser {
 public:
    Parser(const std::string& text, const std::string& name) : text_(text), name_(name) {
        if (text_.compare(0, 3, utf8Mark) == 0) at_ = 3;
        if (text_.compare(0, 2, "\xff\xfe") == 0 || text_.compare(0, 2, "\xfe\xff") == 0) {
            throw Error(name, "is UTF-16; save the table as CSV in UTF-8");
        }
    }

    /// Returns whether there was another row.
    bool next(TableRow& row) {
        while (skipLineEnd()) ++number_;
        if (at_ == text_.size()) return false;
        row = TableRow{};
        row.number = ++number_;
        row.line = line_;
        do {
            row.fields.push_back(field());
        } while (skip(','));
        if (at_ < text_.size() && !skipLineEnd()) fail("a carriage return without a line feed");
        return true;
    }

 private:
    std::string field() {
        if (skip('"')) return quotedField();
        const std::size_t begin = at_;
        at_ = std::min(text_.find_first_of(",\"\r\n", at_), text_.size());
        if (at_ < text_.size() && text_[at_] == '"') {
            fail(
                "a quote inside a field that does not begin with one; such a field is written \"a \"\"quoted\"\" "
                "word\"");
        }
        return text_.substr(begin, at_ - begin);
    }

    std::string quotedField() {
        const std::size_t beginLine = line_;
        std::string field;
        for (;;) {
            const std::size_t quote = text_.find('"', at_);
            if (quote == std::string::npos) {
                throw Error(name_ + ":" + std::to_string(beginLine), "the quote that begins a field here never ends");
            }
            field.append(text_, at_, quote - at_);
            line_ += static_cast<std::size_t>(std::count(text_.begin() + static_cast<std::ptrdiff_t>(at_),
                                                         text_.begin() + static_cast<std::ptrdiff_t>(quote), '\n'));
            at_ = quote + 1;
            if (!skip('"')) break;
            field += '"';
        }
        if (at_ < text_.size() && text_[at_] != ',' && text_[at_] != '\n' && text_[at_] != '\r') {
            fail("text behind the quote that ends a field");
        }
        return field;
    }

    bool skip(char c) {
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }

    bool skipLineEnd() {
        const std::size_t length = text_.compare(at_, 2, "\r\n") == 0 ? 2 : text_.compare(at_, 1, "\n") == 0 ? 1 : 0;
        at_ += length;
        if (length > 0) ++line_;
        return length > 0;
    }

    [[noreturn]] void fail(const std::string& reason) const {
        throw Error(name_ + ":" + std::to_string(line_), reason);
    }

    const std::string& text_;
    const std::string& name_;
    std::size_t at_ = 0;
    std::size_t line_ = 1;
    std::size_t number_ = 0;
};

void checkColumns(const TableRow& row, const std::string& name) {
    const std::string where = name + ":" + std::to_string(row.line);
    if (row.fields.size() == 1 && row.fields.front().find_first_of(";\t") != std::string::npos) {
        throw Error(where, "there is only one column; separate columns with commas");
    }
    std::set<std::string> seen;
    for (std::size_t index = 0; index < row.fields.size(); ++index) {
        const std::string& column = row.fields[index];
        const std::string ordinal = "column " + std::to_string(index + 1);
        if (column.empty()) throw Error(where, ordinal + " has no name");
        if (!propertyprotocol::isUtf8(column) || printable(column) != column) {
            throw Error(where, "the name of " + ordinal + " has control characters or is not UTF-8");
        }
        if (column.find_first_of("{}") != std::string::npos) {
            throw Error(where, "the name of " + ordinal + " has a brace: " + column);
        }
        if (!seen.insert(column).second) throw Error(where, "two columns are named \"" + column + "\"");
    }
}

std::string problemOf(const TableRow& row, const std::vector<std::string>& columns) {
    if (row.fields.size() != columns.size()) {
        return std::to_string(row.fields.size()) + " fields, but " + std::to_string(columns.size()) + " columns";
    }
    for (std::size_t index = 0; index < columns.size(); ++index) {
        if (!propertyprotocol::isUtf8WithoutNul(row.fields[index])) {
            return columns[index] + " is not UTF-8: " + printable(row.fields[index]);
        }
    }
    return "";
}

}  // namespace

Table parseTable(const std::string& text, const std::string& name) {
    Parser parser(text, name);
    Table table;
    TableRow row;
    if (!parser.next(row)) throw Error(name, "the table is empty; its first row must name the columns");
    checkColumns(row, name);
    table.columns = std::move(row.fields);
    while (parser.next(row)) {
        row.problem = problemOf(row, table.columns);
        table.rows.push_back(std::move(row));
    }
    if (table.rows.empty()) throw Error(name, "the table has no rows below the names of the columns");
    return table;
}

Table readTable(const std::string& path) { return parseTable(readFile(path, maxTableBytes), path); }

}  // namespace pack
