// Publishes provisioning files: pack, unpack, fleet.
#include <algorithm>
#include <fstream>

#include "CatalogueFile.h"
#include "Commands.h"
#include "Differences.h"
#include "Output.h"
#include "ProgressBar.h"
#include "common/Descriptor.h"
#include "debug/Debug.h"
#include "lint/Lint.h"
#include "lint/Settings.h"
#include "pack/Error.h"
#include "pack/Files.h"
#include "pack/Fleet.h"
#include "pack/Pack.h"

namespace zavctl {

namespace {

constexpr std::size_t shownFailures = 20;
constexpr int actionWidth = 11;

Failure failure(const pack::Error& error) { return {ExitCode::failed, "failed", error.what()}; }

std::shared_ptr<const lint::Settings> settingsOf(const PublishOptions& publish) {
    try {
        return lint::Settings::load(publish.catalogue.empty() ? defaultCatalogue() : publish.catalogue);
    } catch (const lint::LintException& error) {
        throw Failure(ExitCode::failed, "bad-file", error.what());
    }
}

// What lint finds in one document. References between files are left to `zavctl lint`.
pack::Check checkOf(const PublishOptions& publish) {
    dbg::Debug::setDebugLevelMask("0");  // the findings say what the daemon's code would log
    lint::Options options;
    options.settings = settingsOf(publish);
    return [options](const std::string& name, const std::string& bytes) {
        std::vector<pack::Finding> findings;
        for (const lint::Finding& one : lint::lintDocument(name, bytes, options)) {
            if (one.level == lint::Level::note) continue;
            findings.push_back({name, one.line, one.level == lint::Level::error,
                                one.message + (one.fix.empty() ? "" : " (" + one.fix + ")"), true, one.column,
                                one.rule});
        }
        return findings;
    };
}

Json::Value toJson(const std::vector<std::string>& names) {
    Json::Value array(Json::arrayValue);
    for (const std::string& name : names) array.append(pack::printable(name));
    return array;
}

// null for 0, which stands for none
Json::Value toJson(std::size_t position) {
    return position > 0 ? Json::Value(static_cast<Json::UInt64>(position)) : Json::Value();
}

Json::Value toJson(const std::vector<pack::Finding>& findings) {
    Json::Value array(Json::arrayValue);
    for (const pack::Finding& one : findings) {
        array.append(toObject({{"file", pack::printable(one.file)},
                               {"line", toJson(one.line)},
                               {"column", toJson(one.column)},
                               {"level", one.isError ? "error" : "warning"},
                               {"rule", one.rule.empty() ? Json::Value() : Json::Value(one.rule)},
                               {"text", pack::printable(one.text)}}));
    }
    return array;
}

std::vector<std::pair<const char*, const std::vector<std::string>*>> listsOf(const pack::Result& result) {
    return {{"encrypted", &result.encrypted}, {"decrypted", &result.decrypted}, {"copied", &result.copied},
            {"removed", &result.removed},     {"vanished", &result.vanished},   {"hidden", &result.hidden}};
}

void printJsonResult(const Environment& environment, const pack::Result& result, bool dryRun) {
    Json::Value object = toObject({{"written", !result.refused && !dryRun},
                                   {"findings", toJson(result.findings)},
                                   {"warnings", toJson(result.warnings)},
                                   {"unchanged", static_cast<Json::UInt64>(result.unchanged)}});
    for (const auto& [name, files] : listsOf(result)) object[name] = toJson(*files);
    printJson(environment.out, object);
}

void printRefusal(const Environment& environment, const pack::Result& result) {
    const auto errors = std::count_if(result.findings.begin(), result.findings.end(),
                                      [](const pack::Finding& finding) { return finding.isError; });
    const bool canBeForced =
        std::all_of(result.findings.begin(), result.findings.end(),
                    [](const pack::Finding& finding) { return !finding.isError || finding.canBeForced; });
    printError(environment.err, "nothing was written: " + counted(static_cast<std::size_t>(errors), "error", "errors") +
                                    (canBeForced ? "; --force writes all the same" : ""));
}

void printTextResult(const Environment& environment, const pack::Result& result, bool dryRun) {
    for (const std::string& warning : result.warnings) printError(environment.err, "warning: " + warning);
    for (const pack::Finding& one : result.findings) environment.err << pack::printable(pack::toText(one)) << std::endl;
    if (result.refused) return printRefusal(environment, result);
    for (const auto& [name, files] : listsOf(result)) {
        for (const std::string& file : *files) {
            environment.out << name << std::string(actionWidth - std::char_traits<char>::length(name), ' ')
                            << pack::printable(file) << "\n";
        }
    }
    const std::size_t written = result.encrypted.size() + result.decrypted.size() + result.copied.size();
    environment.out << counted(written, "file", "files") << (dryRun ? " would be written, " : " written, ")
                    << result.unchanged << " unchanged";
    if (!result.removed.empty()) {
        environment.out << ", " << result.removed.size() << (dryRun ? " would be removed" : " removed");
    }
    if (!result.vanished.empty()) {
        environment.out << ", " << result.vanished.size() << " no longer in the folder (--delete removes)";
    }
    environment.out << "." << std::endl;
}

ExitCode run(const Environment& environment, const Options& options, const std::string& folder,
             const PublishOptions& publish, pack::Result (*operation)(const pack::Options&)) {
    ProgressBar bar(environment.err, environment.errIsTerminal, environment.columns);
    pack::Options request;
    request.from = folder;
    request.to = publish.to;
    request.keyFile = publish.key;
    request.force = publish.force;
    request.dryRun = publish.dryRun;
    request.removeVanished = publish.removeVanished;
    request.progress = [&bar](std::size_t done, std::size_t total) { bar.show(done, total, "files"); };
    if (operation == pack::pack) request.check = checkOf(publish);
    pack::Result result;
    try {
        result = operation(request);
    } catch (const pack::Error& error) {
        throw failure(error);
    }
    bar.clear();
    if (options.json) {
        printJsonResult(environment, result, publish.dryRun);
    } else {
        printTextResult(environment, result, publish.dryRun);
    }
    return result.refused ? ExitCode::failed : ExitCode::done;
}

std::string textOf(const pack::RowFailure& one) {
    const std::string line = one.line == one.row ? "" : " (line " + std::to_string(one.line) + ")";
    return "row " + std::to_string(one.row) + line + ": " + pack::printable(one.reason);
}

void writeErrors(const std::string& path, const std::vector<pack::RowFailure>& failures) {
    std::ofstream file(path, std::ios::trunc);
    for (const pack::RowFailure& one : failures) file << textOf(one) << "\n";
    file.close();
    if (!file) {
        throw Failure(ExitCode::failed, "bad-file",
                      path + ": the rows that failed cannot be written: " + common::reasonOf(errno));
    }
}

void printFleetJson(const Environment& environment, const pack::FleetResult& result, bool dryRun) {
    Json::Value failed(Json::arrayValue);
    for (const pack::RowFailure& one : result.failures) {
        failed.append(toObject({{"row", static_cast<Json::UInt64>(one.row)},
                                {"line", static_cast<Json::UInt64>(one.line)},
                                {"reason", pack::printable(one.reason)}}));
    }
    printJson(environment.out, toObject({{"rows", static_cast<Json::UInt64>(result.rows)},
                                         {"failed", failed},
                                         {"written", dryRun ? 0 : static_cast<Json::UInt64>(result.written)},
                                         {"changed", static_cast<Json::UInt64>(result.written)},
                                         {"unchanged", static_cast<Json::UInt64>(result.unchanged)},
                                         {"warnings", toJson(result.warnings)}}));
}

void printFleetText(const Environment& environment, const pack::FleetResult& result, bool dryRun, bool allInFile) {
    for (const std::string& warning : result.warnings) printError(environment.err, "warning: " + warning);
    const std::size_t failed = result.failures.size();
    for (std::size_t index = 0; index < std::min(failed, shownFailures); ++index) {
        printError(environment.err, textOf(result.failures[index]));
    }
    if (failed > shownFailures) {
        printError(environment.err, "and " + counted(failed - shownFailures, "more row", "more rows") +
                                        (allInFile ? "" : "; --errors FILE lists all"));
    }
    environment.out << result.rows - failed << " of " << counted(result.rows, "row", "rows") << ": "
                    << counted(result.written, "file", "files") << (dryRun ? " would be written, " : " written, ")
                    << result.unchanged << " unchanged." << std::endl;
}

}  // namespace

ExitCode pack(const Environment& environment, const Options& options, const std::string& folder,
              const PublishOptions& publish) {
    return run(environment, options, folder, publish, pack::pack);
}

ExitCode unpack(const Environment& environment, const Options& options, const std::string& folder,
                const PublishOptions& publish) {
    return run(environment, options, folder, publish, pack::unpack);
}

ExitCode fleet(const Environment& environment, const Options& options, const std::string& table,
               const std::string& templatePath, const PublishOptions& publish) {
    ProgressBar bar(environment.err, environment.errIsTerminal, environment.columns);
    pack::FleetOptions request;
    request.table = table;
    request.templatePath = templatePath;
    request.place = publish.place;
    request.to = publish.to;
    request.keyFile = publish.key;
    request.force = publish.force;
    request.dryRun = publish.dryRun;
    request.progress = [&bar](std::size_t done, std::size_t total) { bar.show(done, total, "rows"); };
    request.check = checkOf(publish);
    pack::FleetResult result;
    try {
        result = pack::fleet(request);
    } catch (const pack::Error& error) {
        throw failure(error);
    }
    bar.clear();
    if (!publish.errors.empty()) writeErrors(publish.errors, result.failures);
    if (options.json) {
        printFleetJson(environment, result, publish.dryRun);
    } else {
        printFleetText(environment, result, publish.dryRun, !publish.errors.empty());
    }
    return result.failures.empty() ? ExitCode::done : ExitCode::failed;
}

}  // namespace zavctl
