#include "pack/Fleet.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "common/ThreadSafety.h"
#include "pack/Checks.h"
#include "pack/Container.h"
#include "pack/Error.h"
#include "pack/Files.h"
#include "pack/Key.h"
#include "pack/MacAddress.h"
#include "pack/Output.h"
#include "pack/Parallel.h"
#include "pack/Published.h"
#include "pack/Table.h"
#include "pack/Template.h"

namespace pack {

namespace {

constexpr std::size_t noColumn = static_cast<std::size_t>(-1);

// A file of a row, or one for all rows.
struct Place {
    std::size_t file = 0;  // of the template
    std::string name;      // below the output folder
};

struct Row {
    std::string failure;
    std::vector<std::string> values;  // of the placeholders
    std::vector<Place> places;
    std::size_t unchanged = 0;
    std::vector<std::pair<std::size_t, Staged>> staged;  // with the file of the template
    std::size_t changed = 0;
};

std::string lowered(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

class Fleet {
 public:
    explicit Fleet(const FleetOptions& options) : options_(options) {}

    FleetResult run() {
        prepare();
        expandPaths();
        warnOfLowerCase();
        refuseCollisions();
        refuseAddressesInTwoForms();
        refuseErrorsOfAllRows();
        packCommonFiles();
        forEach(
            rows_.size(), [this](std::size_t index) { packRow(rows_[index]); },
            [this](std::size_t done) { show(done); });
        publish();
        return finish();
    }

 private:
    void prepare() {
        std::error_code error;
        if (std::filesystem::is_directory(options_.templatePath, error)) {
            checkFolders(options_.templatePath, options_.to, options_.keyFile);
            checkOutsideOf(options_.templatePath, {options_.table});
        }
        checkOutsideOf(options_.to, {options_.table, options_.templatePath, options_.keyFile});
        key_ = readKey(options_.keyFile);
        result_.warnings = key_.warnings;
        table_ = readTable(options_.table);
        findMacColumn();
        template_ = readTemplate(options_.templatePath, options_.place, placeholders_, key_);
        rows_.resize(table_.rows.size());
    }

    void findMacColumn() {
        placeholders_ = table_.columns;
        for (std::size_t index = 0; index < table_.columns.size(); ++index) {
            if (lowered(table_.columns[index]) != "mac") continue;
            if (macColumn_ != noColumn) throw Error(options_.table, "two columns are named mac");
            macColumn_ = index;
        }
        if (macColumn_ == noColumn) return;
        for (const char* const derived : {"MACC", "MACD"}) {
            if (std::find(placeholders_.begin(), placeholders_.end(), derived) != placeholders_.end()) {
                throw Error(options_.table, std::string("a column is named ") + derived + ", which column " +
                                                table_.columns[macColumn_] + " stands for already");
            }
            placeholders_.emplace_back(derived);
        }
    }

    void expandPaths() {
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            Row& row = rows_[index];
            row.failure = table_.rows[index].problem;
            row.values = std::move(table_.rows[index].fields);
            if (row.failure.empty()) row.failure = addMac(row.values);
            for (std::size_t file = 0; file < template_.size() && row.failure.empty(); ++file) {
                if (template_[file].path.hasPlaceholders()) row.failure = addPlace(row, file);
            }
        }
        for (std::size_t file = 0; file < template_.size(); ++file) {
            if (template_[file].path.hasPlaceholders()) continue;
            common_.places.push_back({file, template_[file].path.expand({})});
        }
    }

    std::string addMac(std::vector<std::string>& values) const {
        if (macColumn_ == noColumn) return "";
        const std::optional<std::string> colons = formatMac(values[macColumn_], ':');
        if (!colons) {
            return table_.columns[macColumn_] + " is not the MAC address of a device: " + printable(values[macColumn_]);
        }
        std::string dashes = *colons;
        std::replace(dashes.begin(), dashes.end(), ':', '-');
        values.push_back(*colons);
        values.push_back(std::move(dashes));
        return "";
    }

    std::string addPlace(Row& row, std::size_t file) const {
        for (const std::size_t column : template_[file].path.columns()) {
            const std::string& value = row.values[column];
            if (value.empty()) return placeholders_[column] + " is empty, but is part of a path";
            if (value.find('/') != std::string::npos || printable(value) != value) {
                return placeholders_[column] + " cannot be part of a path: " + printable(value);
            }
        }
        std::string name = template_[file].path.expand(row.values);
        std::string problem = problemOfName(name);
        if (problem.empty()) problem = obstacle(options_.to, name);
        if (problem.empty()) row.places.push_back({file, std::move(name)});
        return problem;
    }

    // Paths have the case of the table; a phone asks for that of its own address.
    void warnOfLowerCase() {
        const auto hasMac = [this](const TemplateFile& file) {
            const auto& columns = file.path.columns();
            return std::any_of(columns.begin(), columns.end(), [this](std::size_t column) {
                return column == macColumn_ || column >= table_.columns.size();
            });
        };
        if (macColumn_ == noColumn || std::none_of(template_.begin(), template_.end(), hasMac)) return;
        const auto isLower = [this](const Row& row) {
            return row.failure.empty() && row.values[macColumn_].find_first_of("abcdef") != std::string::npos;
        };
        const auto first = std::find_if(rows_.begin(), rows_.end(), isLower);
        if (first == rows_.end()) return;
        const auto count = std::count_if(first, rows_.end(), isLower);
        result_.warnings.push_back(options_.table +
                                   ": MAC addresses in lower case, which paths keep: " + std::to_string(count) +
                                   " of " + std::to_string(rows_.size()) + " rows, the first is row " +
                                   std::to_string(table_.rows[static_cast<std::size_t>(first - rows_.begin())].number) +
                                   "; a phone whose NET.MAC.Address is in upper case asks for another path");
    }

    // Two rows for one file: none of them can be trusted to be the right one.
    void refuseCollisions() {
        std::unordered_map<std::string, std::size_t> owners;  // index of the row; rows_.size() for common files
        std::unordered_set<std::string> folders;
        const auto add = [&](Row& row, std::size_t index) {
            for (const Place& place : row.places) {
                const auto [known, isNew] = owners.emplace(place.name, index);
                if (!isNew) collide(row, known->second, index, place.name);
                for (std::size_t slash = place.name.find('/'); slash != std::string::npos;
                     slash = place.name.find('/', slash + 1)) {
                    folders.insert(place.name.substr(0, slash));
                }
            }
        };
        add(common_, rows_.size());
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            if (rows_[index].failure.empty()) add(rows_[index], index);
        }
        for (Row& row : rows_) {
            for (const Place& place : row.places) {
                if (row.failure.empty() && folders.count(place.name) > 0) {
                    row.failure = place.name + " is also a folder of another row";
                }
            }
        }
    }

    void collide(Row& row, std::size_t owner, std::size_t index, const std::string& name) {
        if (owner == rows_.size()) {
            row.failure = name + " is also a file for all rows";
            return;
        }
        row.failure = name + " is also the file of row " + std::to_string(table_.rows[owner].number);
        if (rows_[owner].failure.empty()) {
            rows_[owner].failure = name + " is also the file of row " + std::to_string(table_.rows[index].number);
        }
    }

    // Their paths may differ, but one phone cannot ask for both.
    void refuseAddressesInTwoForms() {
        if (macColumn_ == noColumn) return;
        std::unordered_map<std::string, std::size_t> owners;  // index of the row that has the address first
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            Row& row = rows_[index];
            if (row.values.size() != placeholders_.size()) continue;  // it has no address
            const auto [known, isNew] = owners.emplace(lowered(row.values.back()), index);
            Row& first = rows_[known->second];
            if (isNew || first.values[macColumn_] == row.values[macColumn_]) continue;
            const auto failure = [this](std::size_t other) {
                return "row " + std::to_string(table_.rows[other].number) + " writes the same address in another way";
            };
            if (row.failure.empty()) row.failure = failure(known->second);
            if (first.failure.empty()) first.failure = failure(index);
        }
    }

    // An error that all rows have is reported once: most likely it is the template's.
    void refuseErrorsOfAllRows() {
        if (!options_.check || options_.force) return;
        std::vector<std::size_t> usable;
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            if (rows_[index].failure.empty()) usable.push_back(index);
        }
        if (usable.size() < 2) return;
        std::vector<Finding> shared = errorsOf(rows_[usable.front()]);
        if (shared.empty()) return;
        const auto drop = [&](std::size_t at) {
            {
                const common::LockGuard<common::Mutex> lock(mutex_);
                if (shared.empty()) return;
            }
            const std::vector<Finding> errors = errorsOf(rows_[usable[at]]);
            const common::LockGuard<common::Mutex> lock(mutex_);
            const auto isElsewhere = [&errors](const Finding& one) {
                return std::none_of(errors.begin(), errors.end(),
                                    [&one](const Finding& other) { return isSame(one, other); });
            };
            shared.erase(std::remove_if(shared.begin(), shared.end(), isElsewhere), shared.end());
        };
        forEach(usable.size(), drop, nullptr);
        if (shared.empty()) return;
        throw Error(printable(toText(shared.front())) + " (the same in every row; nothing was written)");
    }

    // The column is left out: it depends on the values before it.
    static bool isSame(const Finding& one, const Finding& other) {
        return one.file == other.file && one.line == other.line && one.rule == other.rule && one.text == other.text;
    }

    // With the file of the template instead of the row's.
    std::vector<Finding> errorsOf(const Row& row) const {
        std::vector<Finding> errors;
        Row probe;
        probe.values = row.values;
        for (const Place& place : row.places) {
            const TemplateFile& file = template_[place.file];
            const std::string content = render(place, probe);
            if (!probe.failure.empty() || file.kind != FileKind::provisioning) continue;
            for (Finding& one : options_.check(place.name, content)) {
                if (!one.isError) continue;
                one.file = file.source;
                errors.push_back(std::move(one));
            }
        }
        return errors;
    }

    void packCommonFiles() {
        for (const Place& place : common_.places) {
            const std::string blocked = obstacle(options_.to, place.name);
            if (!blocked.empty()) throw Error(blocked);
        }
        packPlaces(common_);
        if (!common_.failure.empty()) throw Error(common_.failure);
    }

    void packRow(Row& row) {
        if (row.failure.empty()) packPlaces(row);
        row.values = {};
    }

    void packPlaces(Row& row) {
        std::vector<std::string> contents;
        for (const Place& place : row.places) {
            contents.push_back(render(place, row));
            if (row.failure.empty()) check(place, contents.back(), row);
            if (!row.failure.empty()) return;
        }
        for (std::size_t index = 0; index < contents.size(); ++index) {
            const Place& place = row.places[index];
            const std::string path = options_.to + "/" + place.name;
            const bool encrypting = template_[place.file].kind == FileKind::provisioning;
            const bool present =
                encrypting ? isPublished(path, contents[index], key_.passPhrase) : hasContent(path, contents[index]);
            ++(present ? row.unchanged : row.changed);
            if (present || options_.dryRun) continue;
            const std::string bytes =
                encrypting ? encrypt(contents[index], key_.passPhrase) : std::move(contents[index]);
            row.staged.emplace_back(place.file, output().stage(place.name, bytes));
        }
    }

    std::string render(const Place& place, Row& row) const {
        const TemplateFile& file = template_[place.file];
        std::string content = file.content.expand(file.isXml ? escaped(file, row) : row.values);
        return content;
    }

    void check(const Place& place, const std::string& content, Row& row) const {
        if (isKey(content, key_)) {
            row.failure = place.name + " would hold the key of the phones, which must not be published";
        } else if (template_[place.file].kind != FileKind::provisioning) {
            return;
        } else if (encryptedSize(content.size()) > maxProvisioningFileBytes) {
            row.failure = place.name + " is too large: phones refuse more than 16 MiB, encrypted";
        } else if (options_.check && !options_.force) {
            const std::vector<Finding> findings = options_.check(place.name, content);
            const auto error =
                std::find_if(findings.begin(), findings.end(), [](const Finding& one) { return one.isError; });
            if (error != findings.end()) row.failure = toText(*error);
        }
    }

    std::vector<std::string> escaped(const TemplateFile& file, Row& row) const {
        std::vector<std::string> values(row.values.size());
        for (const std::size_t column : file.content.columns()) {
            try {
                values[column] = escapedForXml(row.values[column]);
            } catch (const Error& error) {
                row.failure = placeholders_[column] + " " + error.what() + ": " + printable(row.values[column]);
            }
        }
        return values;
    }

    // Made by the first file that is to be written, so that a run without changes touches nothing.
    Output& output() {
        const common::LockGuard<common::Mutex> lock(mutex_);
        if (!output_) output_ = std::make_unique<Output>(options_.to, Access::everybody);
        return *output_;
    }

    // Copied files and job files before the initial files that name them.
    void publish() {
        std::vector<Staged> files;
        for (const bool initial : {false, true}) {
            const auto take = [&](Row& row) {
                for (auto& [file, staged] : row.staged) {
                    if (template_[file].isInitial == initial) files.push_back(std::move(staged));
                }
            };
            take(common_);
            for (Row& row : rows_) take(row);
        }
        if (!files.empty()) output().publish(files, [](std::size_t) {});
    }

    FleetResult finish() {
        result_.rows = rows_.size();
        result_.written = common_.changed;
        result_.unchanged = common_.unchanged;
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            const Row& row = rows_[index];
            result_.written += row.changed;
            result_.unchanged += row.unchanged;
            if (row.failure.empty()) continue;
            result_.failures.push_back({table_.rows[index].number, table_.rows[index].line, row.failure});
        }
        return std::move(result_);
    }

    void show(std::size_t done) const {
        if (options_.progress) options_.progress(done, rows_.size());
    }

    const FleetOptions& options_;
    Key key_;
    Table table_;
    std::size_t macColumn_ = noColumn;
    std::vector<std::string> placeholders_;
    std::vector<TemplateFile> template_;
    std::vector<Row> rows_;
    Row common_;
    FleetResult result_;
    common::Mutex mutex_;
    std::unique_ptr<Output> output_ GUARDED_BY(mutex_);
};

}  // namespace

FleetResult fleet(const FleetOptions& options) { return Fleet(options).run(); }

}  // namespace pack
