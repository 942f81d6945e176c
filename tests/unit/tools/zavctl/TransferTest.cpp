// Commands that depend on the property service's answers: against the real service, without a bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include "Commands.h"
#include "Json.h"
#include "SettingsFile.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "service/PropertyService.h"

namespace zavctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class MemoryStore final : public propertyservice::IStore {
 public:
    propertyservice::StoredValues load() override {
        propertyservice::StoredValues values;
        for (const auto& [key, value] : stored) values.add(key, *value);
        return values;
    }
    void write(const std::vector<Entry>& entries) override {
        if (full) throw propertyservice::StoreException("full");
        if (damaged) throw propertyservice::DamagedStore("damaged");
        written += entries.size();
    }
    void rebuild(const std::vector<Entry>& entries) override { stored = entries; }

    std::vector<Entry> stored;
    bool full = false;
    bool damaged = false;
    std::size_t written = 0;
};

class ServiceBus final : public ipc::IIPCClient {
 public:
    explicit ServiceBus(std::optional<propertyservice::PropertyService>& service) : service_(service) {}

    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string&, const std::string&, int) override {}
    void watchPresence(const std::string&) override {}
    std::string request(const std::string& topic, const std::string& payload, const std::string&,
                        std::chrono::milliseconds) override {
        const auto messages = service_->handle({{topic, payload, "me", "1", 0}});
        for (const auto& message : messages) changes.push_back(message.payload);
        changes.pop_back();  // the answer
        return messages.back().payload;
    }

    std::vector<std::string> changes;

 private:
    std::optional<propertyservice::PropertyService>& service_;
};

constexpr char catalogueText[] = R"({"version": 1, "keys": {
    "Audio.Volume": {"type": "integer", "min": 0, "max": 10, "default": "5", "description": "How loud"},
    "Audio.Tone": {"type": "text", "default": "ring", "description": "d"},
    "Web.Password": {"type": "secret", "maxLength": 8, "default": "", "description": "Who may"},
    "Web.URL": {"type": "url", "schemes": ["https"], "default": "", "description": "d"},
    "Serial": {"type": "text", "default": "42", "readOnly": true, "description": "d"},
    "State.Call": {"type": "enum", "values": ["", "yes"], "refusedSources": ["provisioning"], "default": "",
                   "description": "d"}
}})";

class Transfer : public testing::Test {
 protected:
    Transfer() {
        std::string pattern = "/tmp/zavctl-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    ~Transfer() override { std::filesystem::remove_all(folder); }

    ExitCode run(const std::vector<std::string>& arguments) {
        out.str("");
        err.str("");
        bus->changes.clear();
        return zavctl::run(
            arguments,
            Environment{out, err, false, false, stopSignal, [] {}, [this](const std::string&) { return bus; },
                        [](std::shared_ptr<ipc::IIPCClient> client) {
                            return propertyapi::PropertyApiBuilder::getPropertyApi(std::move(client), "zavctl");
                        }});
    }
    std::string value(const std::string& key) {
        run({"get", key});
        return out.str();
    }
    // Restarts the service with these entries in its store.
    void startWith(std::vector<propertyservice::IStore::Entry> entries) {
        store.stored = std::move(entries);
        service.emplace(catalogue, store);
    }
    std::string file(const std::string& properties) {
        const std::string path = folder / "in.json";
        std::ofstream(path) << R"({"version": 1, "properties": {)" << properties << "}}";
        return path;
    }

    const propertyservice::Catalogue catalogue = propertyservice::Catalogue::parse(catalogueText, "c.json");
    MemoryStore store;
    std::optional<propertyservice::PropertyService> service{std::in_place, catalogue, store};
    const std::shared_ptr<ServiceBus> bus = std::make_shared<ServiceBus>(service);
    std::filesystem::path folder;
    std::ostringstream out;
    std::ostringstream err;
    common::StopSignal stopSignal;
};

TEST_F(Transfer, DescribePrintsTheDefinition) {
    EXPECT_EQ(run({"describe", "Audio.Volume"}), ExitCode::done);
    EXPECT_EQ(out.str(),
              "Key          Audio.Volume\n"
              "Description  How loud\n"
              "Type         integer, from 0 to 10\n"
              "Default      5\n"
              "Writable by  any client\n"
              "Persistence  permanent\n");
    run({"describe", "State.Call"});
    EXPECT_THAT(out.str(), HasSubstr("Type         enum, one of \"\", \"yes\"\nDefault      empty\n"));
    EXPECT_THAT(out.str(), HasSubstr("Writable by  any client except \"provisioning\"\n"));
    EXPECT_THAT(out.str(), HasSubstr("Persistence  until the property service restarts\n"));
    run({"describe", "Web.URL"});
    EXPECT_THAT(out.str(), HasSubstr("url, beginning with https\n"));
    run({"describe", "Serial"});
    EXPECT_THAT(out.str(), HasSubstr("no client: it is read-only\n"));
    run({"describe", "Web.Password", "--json"});
    EXPECT_EQ(
        out.str(),
        "{\"default\":\"\",\"description\":\"Who may\",\"maxLength\":8,\"param\":\"Web.Password\",\"readOnly\":false,"
        "\"type\":\"secret\",\"volatile\":false}\n");
    EXPECT_EQ(run({"describe", "Audio"}), ExitCode::noSuchKey);
    EXPECT_THAT(err.str(), HasSubstr("Audio: the catalogue has no such key"));
}

TEST_F(Transfer, KeysPrintsKeysWithoutValues) {
    EXPECT_EQ(run({"keys", "Audio."}), ExitCode::done);
    EXPECT_EQ(out.str(), "Audio.Tone\nAudio.Volume\n");
    EXPECT_EQ(run({"keys", "Web.", "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(), "{\"keys\":[\"Web.Password\",\"Web.URL\"]}\n");
}

TEST_F(Transfer, ListHidesSecretsAndPasswordsInUrls) {
    run({"set", "Web.Password", "hunter2"});
    run({"set", "Web.URL", "https://me:hunter2@h/"});
    EXPECT_EQ(run({"list", "Web."}), ExitCode::done);
    EXPECT_EQ(out.str(), "Web.Password=***\nWeb.URL=https://me:***@h/\n");
    EXPECT_EQ(run({"list", "Web.", "--json"}), ExitCode::done);
    EXPECT_THAT(out.str(), Not(HasSubstr("hunter2")));
    EXPECT_EQ(run({"list", "Web.", "--show-secrets"}), ExitCode::done);
    EXPECT_EQ(out.str(), "Web.Password=hunter2\nWeb.URL=https://me:hunter2@h/\n");
    run({"set", "Web.Password", ""});
    run({"list", "Web.Password"});
    EXPECT_EQ(out.str(), "Web.Password=\n") << "an empty secret is not masked";
}

TEST_F(Transfer, ExportPrintsSettingsAndOmitsSecretsUnlessAsked) {
    run({"set", "Web.Password", "hunter2"});
    EXPECT_EQ(run({"export"}), ExitCode::done);
    EXPECT_EQ(err.str(), "zavctl: 1 secret omitted; --show-secrets includes them\n");
    EXPECT_EQ(out.str(), R"({
  "properties" : 
  {
    "Audio.Tone" : "ring",
    "Audio.Volume" : "5",
    "Web.URL" : ""
  },
  "version" : 1
}
)");
    EXPECT_EQ(run({"export", "Web.", "--show-secrets", "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(), "{\"properties\":{\"Web.Password\":\"hunter2\",\"Web.URL\":\"\"},\"version\":1}\n");
    EXPECT_EQ(err.str(), "");
}

TEST_F(Transfer, ImportShowsAndWritesDifferences) {
    const std::string path = file(R"("Audio.Volume": "7", "Audio.Tone": "ring", "Web.Password": "hunter2")");
    EXPECT_EQ(run({"import", path}), ExitCode::done);
    EXPECT_EQ(out.str(),
              "-Audio.Volume=5\n+Audio.Volume=7\n-Web.Password=\n+Web.Password=***\n"
              "2 settings would be written; --apply writes them.\n");
    EXPECT_EQ(value("Audio.Volume"), "5\n");
    EXPECT_EQ(run({"import", path, "--apply", "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(),
              "{\"applied\":true,\"changes\":[{\"after\":\"7\",\"before\":\"5\",\"param\":\"Audio.Volume\"},"
              "{\"after\":\"***\",\"before\":\"\",\"param\":\"Web.Password\"}]}\n");
    EXPECT_THAT(bus->changes, ElementsAre(R"({"param":"Audio.Volume","value":"7","source":"zavctl"})",
                                          R"({"param":"Web.Password","value":"hunter2","source":"zavctl"})"));
    EXPECT_EQ(run({"import", path, "--apply"}), ExitCode::done);
    EXPECT_EQ(out.str(), "Nothing to do: the phone already has these settings.\n");
    EXPECT_TRUE(bus->changes.empty());
    EXPECT_EQ(run({"import", file(R"("Audio.Volume": null)"), "--apply"}), ExitCode::done);
    EXPECT_EQ(out.str(), "-Audio.Volume=7\n+Audio.Volume=5\n1 setting written.\n");
    EXPECT_EQ(value("Audio.Volume"), "5\n");
}

TEST_F(Transfer, ImportWritesNothingIfASettingIsRefused) {
    const std::string path = file(R"("Audio.Tone": "new", "Audio.Volume": "11", "No.Such": "1", "Serial": "1")");
    for (const bool apply : {false, true}) {
        EXPECT_EQ(
            run(apply ? std::vector<std::string>{"import", path, "--apply"} : std::vector<std::string>{"import", path}),
            ExitCode::failed);
        EXPECT_EQ(
            err.str(),
            "zavctl: nothing was written: 3 settings were refused; Audio.Volume: must be a whole number from 0 to "
            "10; No.Such: the catalogue has no such key; Serial: may not be written by a client\n");
        EXPECT_EQ(value("Audio.Tone"), "ring\n");
    }
    EXPECT_EQ(run({"import", file(R"("No.Such": "1")")}), ExitCode::noSuchKey);
    store.full = true;
    EXPECT_EQ(run({"import", file(R"("Audio.Tone": "new", "Audio.Volume": "6")"), "--apply", "--json"}),
              ExitCode::failed);
    EXPECT_THAT(out.str(), HasSubstr("\"error\":\"storage\""));
    EXPECT_EQ(value("Audio.Tone"), "ring\n");
}

TEST_F(Transfer, ImportReportsATooLargeFile) {
    const std::string large = file(R"("Audio.Tone": ")" + std::string(16 * 1024 * 1024, 'x') + "\"");
    EXPECT_EQ(run({"import", large, "--apply"}), ExitCode::failed);
    EXPECT_THAT(err.str(), HasSubstr("the phone accepts at most 15728640 at once: split the file"));
    std::string unknown = R"("No.0": "")";
    for (int number = 1; number < 1500; ++number) unknown += ", \"No." + std::to_string(number) + R"(": "")";
    EXPECT_EQ(run({"import", file(unknown), "--apply"}), ExitCode::noSuchKey);
    EXPECT_THAT(err.str(), HasSubstr("nothing was written: 1000 settings were refused, or more; No.0: "));
}

TEST_F(Transfer, InvalidSettingsFilesAreReported) {
    const std::vector<std::pair<std::string, std::string>> texts{
        {"", "Line 1, Column 1:"},
        {"{\"version\": 1,\n \"properties\": {\"a\" 1}}", "Line 2, Column 21:"},
        {"[]", "is not a settings file"},
        {R"({"version": 2, "properties": {}})", "is not a settings file"},
        {R"({"version": 1, "properties": {"a": "1", "a": "2"}})", "Duplicate key: 'a'"},
        {R"({"version": 1, "properties": {"a": 5}})", "a: its value must be a string (\"5\", not 5)"}};
    for (const auto& [text, reason] : texts) {
        const std::string path = folder / "bad.json";
        std::ofstream(path) << text;
        EXPECT_EQ(run({"import", path}), ExitCode::failed) << text;
        EXPECT_THAT(err.str(), HasSubstr(path + ": "));
        EXPECT_THAT(err.str(), HasSubstr(reason));
    }
    EXPECT_EQ(run({"import", folder / "none"}), ExitCode::failed);
    EXPECT_THAT(err.str(), HasSubstr("cannot be opened: No such file"));
    EXPECT_EQ(run({"import", folder}), ExitCode::failed);
    EXPECT_THAT(err.str(), HasSubstr(folder.string() + ": cannot be read: Is a directory"));
}

TEST_F(Transfer, DiffComparesFilesAndThePhone) {
    const std::string left = folder / "left.json";
    std::filesystem::copy_file(file(R"("Audio.Tone": "ring", "Audio.Volume": "7", "Web.Password": "old")"), left);
    const std::string right = file(R"("Audio.Tone": "ring", "Audio.Volume": "8", "Web.URL": "x")");
    EXPECT_EQ(run({"diff", left, right}), ExitCode::done);
    EXPECT_EQ(out.str(), "-Audio.Volume=7\n+Audio.Volume=8\n-Web.Password=old\n+Web.URL=x\n");
    EXPECT_EQ(run({"diff", left, right, "--json"}), ExitCode::done);
    EXPECT_THAT(out.str(), HasSubstr("{\"after\":null,\"before\":\"old\",\"param\":\"Web.Password\"}"));
    EXPECT_EQ(run({"diff", left}), ExitCode::done);
    EXPECT_EQ(out.str(), "-Audio.Volume=7\n+Audio.Volume=5\n-Web.Password=***\n+Web.Password=\n");
    EXPECT_EQ(run({"diff", "--all", left}), ExitCode::done);
    EXPECT_EQ(out.str(), "-Audio.Volume=7\n+Audio.Volume=5\n-Web.Password=***\n+Web.Password=\n+Web.URL=\n");
}

TEST_F(Transfer, DiffWithThePhoneComparesExactlyTheKeysOfTheFile) {
    EXPECT_EQ(run({"diff", file(R"("Audio.Tone": "ring", "Audio.Volume": null, "Web.Password": null)")}),
              ExitCode::done);
    EXPECT_EQ(out.str(), "") << "null is the default";
    EXPECT_EQ(run({"diff", file(R"("No.Such": "1", "Serial": "41", "State.Call": "yes")"), "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(),
              "{\"changes\":[{\"after\":null,\"before\":\"1\",\"param\":\"No.Such\"},"
              "{\"after\":\"42\",\"before\":\"41\",\"param\":\"Serial\"},"
              "{\"after\":\"\",\"before\":\"yes\",\"param\":\"State.Call\"}]}\n");
}

TEST_F(Transfer, ExportWithoutMatchExits4) {
    for (const char* prefix : {"Nothing.", "State."}) {
        EXPECT_EQ(run({"export", prefix}), ExitCode::noSuchKey);
        EXPECT_EQ(out.str(), "");
        EXPECT_EQ(err.str(), "zavctl: no setting begins with \"" + std::string(prefix) + "\"\n");
    }
    EXPECT_EQ(run({"export", "Web.Password"}), ExitCode::done) << "the setting exists, though its value is omitted";
}

TEST_F(Transfer, ResetsAKeyOrAPrefix) {
    run({"set", "Audio.Volume", "7"});
    run({"set", "Audio.Tone", "x"});
    run({"set", "Web.Password", "x"});
    EXPECT_EQ(run({"reset", "Audio.Volume"}), ExitCode::done);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(value("Audio.Volume"), "5\n");
    EXPECT_EQ(value("Audio.Tone"), "x\n");
    EXPECT_EQ(run({"reset", "Audio.", "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(), "{\"reset\":[\"Audio.Tone\"]}\n");
    EXPECT_THAT(bus->changes, ElementsAre(R"({"param":"Audio.Tone","value":"ring","source":"zavctl"})"));
    EXPECT_EQ(run({"reset", "Audio."}), ExitCode::done);
    EXPECT_EQ(out.str(), "0 settings reset.\n");
    EXPECT_EQ(run({"reset", "Web."}), ExitCode::done);
    EXPECT_EQ(value("Web.Password"), "\n");
    EXPECT_EQ(run({"reset", "Audio"}), ExitCode::noSuchKey);
    EXPECT_EQ(run({"reset", "None."}), ExitCode::noSuchKey);
    EXPECT_EQ(run({"reset", "Serial"}), ExitCode::failed);
}

TEST_F(Transfer, BackupAndRestoreRoundTrip) {
    run({"set", "Audio.Volume", "7"});
    run({"set", "Web.Password", "hunter2"});
    const std::string path = folder / "backup.json";
    EXPECT_EQ(run({"backup", path}), ExitCode::done);
    EXPECT_EQ(out.str(), "4 settings written to " + path + ", including passwords.\n");
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1) << "a temporary file is left";
    EXPECT_EQ(run({"backup", path}), ExitCode::failed);
    EXPECT_THAT(err.str(), HasSubstr("already exists; --force replaces it"));
    EXPECT_EQ(run({"backup", path, "--force", "--json"}), ExitCode::done);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);

    run({"set", "Audio.Volume", "1"});
    run({"reset", "Web."});
    EXPECT_EQ(run({"restore", path}), ExitCode::done);
    EXPECT_EQ(out.str(), "2 settings written, 2 unchanged.\n");
    EXPECT_EQ(value("Audio.Volume"), "7\n");
    EXPECT_EQ(value("Web.Password"), "hunter2\n");
    EXPECT_EQ(run({"backup", folder / "no/such.json"}), ExitCode::failed);
}

TEST_F(Transfer, BackupToStandardOutputPrintsOnlyTheFile) {
    EXPECT_EQ(run({"backup", "-"}), ExitCode::done);
    const std::string text = out.str();
    EXPECT_EQ(err.str(), "zavctl: 4 settings written to standard output, including passwords.\n");
    EXPECT_EQ(run({"backup", folder / "file"}), ExitCode::done);
    std::ifstream file(folder / "file");
    EXPECT_EQ(text, (std::string{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()}));
    EXPECT_EQ(run({"backup", "-", "--json"}), ExitCode::done);
    EXPECT_EQ(out.str(), text);
    EXPECT_EQ(run({"backup", "/dev/full", "--force"}), ExitCode::failed);
    EXPECT_EQ(err.str(), "zavctl: /dev/full: cannot be written: No space left on device\n");
}

TEST_F(Transfer, BackupIncludesAndNamesUncataloguedKeys) {
    startWith({{"Old.Z", "z"}, {"Old.A", "a"}, {"Audio.Volume", "7"}, {"Old.Binary", "\xff"}, {"State.Call", "yes"}});
    const std::string path = folder / "backup.json";
    EXPECT_EQ(run({"backup", path}), ExitCode::done);
    EXPECT_EQ(err.str(),
              "zavctl: Old.A is stored but not in the catalogue; the backup includes it\n"
              "zavctl: Old.Z is stored but not in the catalogue; the backup includes it\n");
    EXPECT_EQ(out.str(), "6 settings written to " + path + ", including passwords.\n");
    const Settings settings = readSettings(path);
    EXPECT_EQ(settings.at("Old.A"), "a");
    EXPECT_EQ(settings.at("Old.Z"), "z");
    EXPECT_EQ(settings.at("Audio.Volume"), "7");
    EXPECT_EQ(run({"backup", path, "--force", "--json"}), ExitCode::done);
    EXPECT_EQ(err.str(), "");
    EXPECT_THAT(out.str(), HasSubstr("\"uncatalogued\":[\"Old.A\",\"Old.Z\"]"));
    EXPECT_EQ(run({"restore", path}), ExitCode::done);
    EXPECT_THAT(err.str(), HasSubstr("zavctl: Old.A skipped: this phone has no such setting\n"));
    EXPECT_EQ(run({"get", "Old.A"}), ExitCode::noSuchKey);
}

TEST_F(Transfer, UncataloguedKeysSurviveADamagedStore) {
    startWith({{"Old.A", "a"}});
    store.damaged = true;
    EXPECT_EQ(run({"set", "Audio.Volume", "7"}), ExitCode::done);
    EXPECT_THAT(store.stored, Contains(propertyservice::IStore::Entry("Old.A", "a")));
}

TEST_F(Transfer, BackupReadsAllPagesOfUncataloguedKeys) {
    std::vector<propertyservice::IStore::Entry> entries;
    for (int number = 0; number < 2500; ++number) entries.emplace_back("Old." + std::to_string(number), "x");
    startWith(entries);
    const std::string path = folder / "backup.json";
    EXPECT_EQ(run({"backup", path}), ExitCode::done);
    EXPECT_EQ(readSettings(path).size(), 2504U);
}

TEST_F(Transfer, RestorePrintsJson) {
    const std::string path = file(R"("Audio.Tone": "x", "Web.Password": "secret", "No.Such": "1")");
    EXPECT_EQ(run({"restore", path, "--json"}), ExitCode::done);
    EXPECT_THAT(out.str(), HasSubstr(R"("applied":true)"));
    EXPECT_THAT(out.str(), HasSubstr("Audio.Tone"));
    EXPECT_THAT(out.str(), Not(HasSubstr("secret")));
    EXPECT_THAT(err.str(), HasSubstr("No.Such skipped: this phone has no such setting"));
    EXPECT_EQ(value("Audio.Tone"), "x\n");
}

TEST_F(Transfer, RestoreSkipsUnknownKeys) {
    EXPECT_EQ(run({"restore", file(R"("Gone.Key": "1", "Audio.Volume": "9", "Serial": "43")")}), ExitCode::done);
    EXPECT_THAT(err.str(), HasSubstr("zavctl: Gone.Key skipped: this phone has no such setting\n"));
    EXPECT_THAT(err.str(), HasSubstr("zavctl: Serial skipped"));
    EXPECT_EQ(value("Audio.Volume"), "9\n");
    EXPECT_EQ(run({"restore", file(R"("Audio.Tone": "x", "Audio.Volume": "90")")}), ExitCode::failed);
    EXPECT_EQ(value("Audio.Tone"), "ring\n");
}

}  // namespace
}  // namespace zavctl
