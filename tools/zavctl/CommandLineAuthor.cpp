// The commands for those who write and publish provisioning files.
#include <utility>

#include "CommandLine.h"

namespace zavctl {

void CommandLine::addExplain() {
    CLI::App* const command =
        addCommand("explain", "Shows what a phone would do with provisioning files, and why; changes nothing",
                   {{"SOURCE", "The server's folder, an initial file, or its URL"}},
                   {"the pass would end success or partSuccess", "the pass would end fail, or a file cannot be read"},
                   {"zavctl explain phones/ --as phone.json", "zavctl explain phones/provisioning.xml --key phone.key",
                    "zavctl explain https://server.example/phones/ --as running"},
                   [this] { code_ = explain(environment_, options_, positional(0), explained_); });
    command->add_option("--as", explained_.as,
                        "The phone: a file in the format of export, or \"running\"; default: the catalogue's defaults");
    command->add_option("--catalogue", explained_.catalogue, "The phone's catalogue; default: the installed one");
    command->add_option("--key", explained_.key, "File with the phone's pass phrase; default: /etc/zav.d/key");
    command->add_option("--base", explained_.base,
                        "The URL that the folder stands for; default: the server's, up to its first placeholder");
    addShowSecrets(command);
}

void CommandLine::addLint() {
    CLI::App* const command =
        addCommand("lint", "Finds mistakes in provisioning files before they are published",
                   {{"FILE", "Files, folders, URLs; - is standard input", false, true}},
                   {"no error was found; there may be warnings", "an error was found", nullptr, noAnswer},
                   {"zavctl lint provisioning.xml", "zavctl lint /srv/www --base https://server.example/phones/",
                    "zavctl lint https://server.example/phones/provisioning.xml", "zavctl lint --rules"},
                   [this] {
                       if (positionals_.empty() && !lint_.rules) throw usageFailure("lint", "FILE is required");
                       code_ = lintFiles(environment_, options_, lint_, positionals_);
                   });
    command->add_option("--catalogue", lint_.catalogue, "The keys of the phone; default: the installed catalogue");
    command->add_option("--as", lint_.phone, "running: the files are for the phone at --host, with its keys")
        ->check(CLI::IsMember({"running"}));
    command->add_option("--key", lint_.keyFile, "The phone's key file, for encrypted files")->capture_default_str();
    command->add_option("--base", lint_.baseUrl, "The URL under which the files are published");
    command->add_flag("--offline", lint_.offline, "Downloads nothing");
    command->add_flag("--rules", lint_.rules, "Prints the rules instead");
}

// They need no phone.
void CommandLine::addPublishing(const char* name, const char* description, const std::vector<Positional>& positionals,
                                const char* done, const char* failed, const Examples& examples, const char* force,
                                std::function<void()> action) {
    CLI::App* const command = addCommand(name, description, positionals, {done, failed, nullptr, nullptr, nullptr},
                                         examples, std::move(action));
    command->add_option("--key", publish_.key, "File with the pass phrase, a copy of the phones' key")->required();
    if (positionals.size() == 1) {
        command->add_option("--to", publish_.to, "The folder that is written; made if it is missing")->required();
    }
    command->add_flag("--force", publish_.force, force);
    if (std::string(name) != "unpack") {
        command->add_option("--catalogue", publish_.catalogue,
                            "The keys of the phones; default: the installed catalogue");
    }
    command->add_flag("--dry-run", publish_.dryRun, "Shows what would be written, and writes nothing");
}

void CommandLine::addPack() {
    addPublishing("pack", "Encrypts a folder of provisioning files for the phones", {{"DIR", "The plain files"}},
                  "the folder is published",
                  "a file is wrong and nothing was published, or a folder cannot be read or written",
                  {"zavctl pack phones --key phone.key --to /srv/phones",
                   "zavctl pack phones --key phone.key --to /srv/phones --delete --dry-run"},
                  "Publishes in spite of mistakes in provisioning files",
                  [this] { code_ = pack(environment_, options_, positional(0), publish_); });
    app_.get_subcommand("pack")->add_flag("--delete", publish_.removeVanished,
                                          "Removes published files that are no longer in DIR");
}

void CommandLine::addUnpack() {
    addPublishing("unpack", "Decrypts a published folder", {{"DIR", "The published files"}}, "the folder is decrypted",
                  "a file cannot be decrypted or would be replaced, and nothing was written",
                  {"zavctl unpack /srv/phones --key phone.key --to phones"}, "Replaces files that exist and differ",
                  [this] { code_ = unpack(environment_, options_, positional(0), publish_); });
}

void CommandLine::addFleet() {
    addPublishing("fleet", "Makes and encrypts the files of many phones from a table",
                  {{"TABLE", "Comma-separated values in UTF-8; the first row names the columns"},
                   {"TEMPLATE", "A file, or a folder, with {column} where a row's value belongs"},
                   {"OUT", "The folder that is written; made if it is missing"}},
                  "all rows are published", "rows failed, and the others are published; or nothing was published",
                  {"zavctl fleet phones.csv template /srv/phones --key phone.key",
                   "zavctl fleet phones.csv phone.xml /srv/phones --name '{MACD}/provisioning.xml' --key phone.key"},
                  "Publishes in spite of mistakes in provisioning files", [this] {
                      publish_.to = positional(2);
                      code_ = fleet(environment_, options_, positional(0), positional(1), publish_);
                  });
    CLI::App* const command = app_.get_subcommand("fleet");
    command->add_option("--name", publish_.place, "Where a single TEMPLATE goes below OUT; default: its own name");
    command->add_option("--errors", publish_.errors, "File for all rows that failed; on the screen are 20 at most");
}

}  // namespace zavctl
