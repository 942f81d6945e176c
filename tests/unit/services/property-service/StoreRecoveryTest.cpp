// Recovery of a store that is torn, damaged, linked or written by another version; backups.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "StoredValuesEqual.h"
#include "TemporaryFolder.h"
#include "fakes/LogCapture.h"
#include "store/Store.h"
#include "store/StoreFiles.h"

namespace propertyservice {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using Entry = IStore::Entry;

void execute(const std::string& path, const char* sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void overwrite(const std::string& path, std::streamoff at, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file << bytes;
}

std::vector<std::string> namesIn(const TemporaryFolder& folder, const std::string& part) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder / "")) {
        const std::string name = entry.path().filename();
        if (name.find(part) != std::string::npos) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A store of format 1.
constexpr char formatOne[] =
    "PRAGMA page_size = 1024; PRAGMA journal_mode = WAL; BEGIN;"
    "CREATE TABLE property (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) STRICT, WITHOUT ROWID;"
    "PRAGMA application_id = 1514231408; PRAGMA user_version = 1;"
    "INSERT INTO property VALUES ('a', '1'), ('b', ''), ('c', 'h\xc3\xb6'); COMMIT";

TEST(OlderStore, IsMigrated) {
    const TemporaryFolder folder;
    execute(folder / "s.db", formatOne);
    {
        Store store(folder / "s.db");
        EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", ""), Entry("c", "h\xc3\xb6")));
        store.write({{"a", "2"}, {"b", std::nullopt}});
    }
    EXPECT_THAT(Store(folder / "s.db").load(), UnorderedElementsAre(Entry("a", "2"), Entry("c", "h\xc3\xb6")));
}

TEST(StoreFormat, ChecksumsAreStable) {
    const TemporaryFolder folder;
    execute(folder / "s.db",
            "PRAGMA page_size = 1024; BEGIN;"
            "CREATE TABLE property (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL, checksum INTEGER NOT NULL "
            "DEFAULT 0) STRICT, WITHOUT ROWID;"
            "PRAGMA application_id = 1514231408; PRAGMA user_version = 2;"
            "INSERT INTO property VALUES ('a', '1', -1886190099773330193), ('b', '', 623207621776481119); COMMIT");
    EXPECT_THAT(Database(folder / "s.db").load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "")));
    execute(folder / "s.db", "UPDATE property SET checksum = checksum + 1 WHERE key = 'b'");
    EXPECT_THROW(Database(folder / "s.db").load(), DamagedStore);
}

TEST(OlderStore, IsLeftUnchangedIfMigrationFails) {
    const TemporaryFolder folder;
    execute(folder / "s.db", formatOne);
    execute(folder / "s.db",
            "CREATE TRIGGER t BEFORE UPDATE ON property WHEN old.key = 'c' BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_THROW(Store store(folder / "s.db"), StoreException);
    execute(folder / "s.db", "DROP TRIGGER t; INSERT INTO property VALUES ('d', 'still two columns')");
    EXPECT_EQ(Store(folder / "s.db").load().size(), 4U);
}

TEST(NewerStore, IsLeftUnchangedIfOnlyItsLogHasTheVersion) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    { Store store(path); }
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    EXPECT_EQ(sqlite3_exec(database, "PRAGMA user_version = 3", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
    const std::string file = bytesOf(path);
    const std::string log = bytesOf(path + "-wal");
    ASSERT_GT(log.size(), 0U);
    try {
        Store store(path);
        FAIL() << "was opened";
    } catch (const StoreException& error) {
        EXPECT_STREQ(error.what(),
                     (path + ": was written by a newer version (store format 3, this version supports 2); it "
                             "is left unchanged")
                         .c_str());
    }
    EXPECT_TRUE(bytesOf(path) == file);
    EXPECT_TRUE(bytesOf(path + "-wal") == log);
}

TEST(LinkedStore, UsesTheTargetOfTheLink) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "disk");
    fs::create_symlink("disk/other.db", folder / "link.db");
    fs::create_symlink(folder / "link.db", folder / "s.db");
    {
        Store store(folder / "s.db");
        store.write({{"a", "1"}});
    }
    EXPECT_THAT(namesIn(folder, "s.db"), ElementsAre("s.db"));
    EXPECT_THAT(Store(folder / "disk/other.db").load(), ElementsAre(Entry("a", "1")));
    EXPECT_THAT(Store(folder / "s.db").load(), ElementsAre(Entry("a", "1")));
}

// The last sequence number in a store: every write sets "number" and "again" to the same one.
unsigned long lastOf(const std::vector<Entry>& entries) {
    std::string number = "0";
    std::string again = "0";
    for (const auto& [key, value] : entries) {
        if (key == "number") number = *value;
        if (key == "again") again = *value;
    }
    EXPECT_EQ(number, again) << "half a transaction";
    return std::stoul(number);
}

TEST(TornLog, KeepsAPrefixWithAllSyncedWrites) {
    const TemporaryFolder folder;
    std::uintmax_t synced = 0;
    constexpr unsigned long before = 6;
    constexpr unsigned long after = 12;
    {
        Store store(folder / "s.db");
        const auto write = [&store](unsigned long number) {
            store.write({{"number", std::to_string(number)}, {"again", std::to_string(number)}});
        };
        for (unsigned long number = 1; number <= before; ++number) write(number);
        const unsigned already = store.syncs();
        synced = fs::file_size(folder / "s.db-wal");
        while (store.syncs() == already) std::this_thread::yield();
        for (unsigned long number = before + 1; number <= after; ++number) write(number);
        fs::create_directory(folder / "torn");
        fs::copy_file(folder / "s.db", folder / "torn/s.db");
        fs::copy_file(folder / "s.db-wal", folder / "torn/s.db-wal");
    }
    const std::string log = bytesOf(folder / "torn/s.db-wal");
    ASSERT_GT(log.size(), synced);
    unsigned long previous = 0;
    const fakes::LogCapture messages;  // logged only if a store counts as damaged
    for (std::size_t size = 0; size < log.size() + 100; size += 100) {
        fs::create_directory(folder / "try");
        fs::copy_file(folder / "torn/s.db", folder / "try/s.db");
        std::ofstream(folder / "try/s.db-wal", std::ios::binary) << log.substr(0, size);
        const unsigned long found = lastOf(entriesOf(Store(folder / "try/s.db").load()));
        EXPECT_GE(found, previous) << size;
        if (size >= synced) {
            EXPECT_GE(found, before) << size;
        }
        if (size >= log.size()) {
            EXPECT_EQ(found, after);
        }
        previous = found;
        fs::remove_all(folder / "try");
    }
    EXPECT_EQ(messages.text(), "");
}

class Damaged : public testing::Test {
 protected:
    void SetUp() override {
        Store store(path, 1h);
        store.write({{"a", "0"}, {"b", "x"}});
    }
    // Writes the value to the store and to its newest backup.
    void backUp(const char* value) {
        Store store(path, 0ms);
        store.load();
        store.write({{"a", value}});
    }
    std::vector<Entry> reopened() {
        log.forget();
        return entriesOf(Store(path, 24h).load());
    }
    void expectErrors(std::size_t count) const {
        const fakes::LogCapture::Lines lines = log.lines();
        EXPECT_EQ(lines.size(), count) << log.text();
        for (const fakes::LogLine& line : lines) {
            EXPECT_EQ(line, fakes::error("services/property-service/store/Store", line.text));
        }
    }

    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    fakes::LogCapture log;
};

TEST_F(Damaged, PageRestoresTheBackup) {
    backUp("1");
    overwrite(path, 1100, std::string(3000, 'x'));
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    EXPECT_THAT(log.text(), HasSubstr("it is kept as " + path + ".damaged-"));
    EXPECT_THAT(log.text(), HasSubstr("Restored the settings of the backup " + path + ".backup-1: 2 stored values"));
    expectErrors(2);
    EXPECT_EQ(namesIn(folder, "damaged").size(), 1U);
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Damaged, BitInAValueIsDetected) {
    backUp("unmistakable");
    const std::size_t at = bytesOf(path).find("unmistakable");
    ASSERT_NE(at, std::string::npos);
    overwrite(path, static_cast<std::streamoff>(at), "U");
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "unmistakable"), Entry("b", "x")));
    EXPECT_THAT(log.text(), HasSubstr("a stored value has a wrong checksum"));
}

TEST_F(Damaged, LogReportsLostCommits) {
    std::string file;
    std::string whole;
    {
        Store store(path);
        for (int number = 1; number <= 6; ++number) store.write({{"a", std::to_string(number)}});
        file = bytesOf(path);
        whole = bytesOf(path + "-wal");
    }
    constexpr std::size_t frame = 24 + 1024;
    ASSERT_EQ(whole.size(), 32 + 6 * frame);
    struct Row {
        std::size_t at;
        int left;
        bool isLogged;
    };
    for (const auto& [at, left, isLogged] : {Row{8, 0, true},
                                             {20, 0, true},  // the salt by which frames of this log are recognised
                                             {32 + frame + 4, 1, true},
                                             {32 + frame + 9, 1, true},
                                             {32 + 2 * frame + 500, 2, true},
                                             {32 + 4 * frame, 4, true},
                                             {32 + 4 * frame + 9, 4, true},
                                             {32 + 5 * frame, 5, false}}) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 4);
        std::ofstream(path, std::ios::binary) << file;
        std::ofstream(path + "-wal", std::ios::binary) << damaged;
        EXPECT_THAT(reopened(), testing::Contains(Entry("a", std::to_string(left)))) << at;
        const std::string report = "s.db-wal: is damaged; the last changes in it are lost: ";
        EXPECT_EQ(log.text().find(report) != std::string::npos, isLogged) << at << log.text();
        expectErrors(isLogged ? 1 : 0);
    }
    std::ofstream(path, std::ios::binary) << file;
    std::ofstream(path + "-wal", std::ios::binary) << whole;
    EXPECT_THAT(reopened(), testing::Contains(Entry("a", "6")));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Damaged, LogReportsALastCommitOfSeveralPages) {
    std::string file;
    std::string whole;
    {
        Store store(path);
        store.write({{"a", "1"}});
        std::vector<Entry> entries;
        for (int number = 0; number < 300; ++number) entries.emplace_back("key." + std::to_string(number), "value");
        store.write(entries);
        file = bytesOf(path);
        whole = bytesOf(path + "-wal");
    }
    const std::size_t secondCommit = 32 + 24 + 1024;
    ASSERT_GT(whole.size(), secondCommit + 2 * 1024);
    whole[secondCommit + 500] = static_cast<char>(whole[secondCommit + 500] ^ 4);
    std::ofstream(path, std::ios::binary) << file;
    std::ofstream(path + "-wal", std::ios::binary) << whole;
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    EXPECT_THAT(log.text(), HasSubstr("s.db-wal: is damaged; the last changes in it are lost: 1"));
}

TEST_F(Damaged, HeaderOrEmptyFileRestoresTheBackup) {
    backUp("1");
    overwrite(path, 0, "garbage garbage garbage");
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    fs::resize_file(path, 0);
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
}

TEST_F(Damaged, BackupFallsBackToTheOlderOne) {
    backUp("1");
    backUp("2");
    overwrite(path + ".backup-1", 1100, std::string(3000, 'x'));
    overwrite(path, 1100, std::string(3000, 'x'));
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    EXPECT_THAT(log.text(), HasSubstr("backup-1 is unusable"));
    expectErrors(3);
}

TEST_F(Damaged, StoreWithoutBackupStartsEmpty) {
    for (const char* name : {".backup-1", ".backup-2"}) fs::remove(path + name);
    overwrite(path, 1100, std::string(3000, 'x'));
    EXPECT_THAT(reopened(), IsEmpty());
    EXPECT_THAT(log.text(), HasSubstr("No usable backup: settings start at their defaults"));
    expectErrors(2);
    Store store(path);
    store.write({{"a", "works"}});
    EXPECT_THAT(store.load(), ElementsAre(Entry("a", "works")));
}

TEST_F(Damaged, StoresAreKeptUpToTwo) {
    for (const char* time : {"20200101T000000Z", "20200102T000000Z", "20200103T000000Z"}) {
        std::ofstream(path + ".damaged-" + time) << "x";
        std::ofstream(path + ".damaged-" + time + "-wal") << "x";
    }
    overwrite(path, 1100, std::string(3000, 'x'));
    reopened();
    const std::vector<std::string> names = namesIn(folder, ".damaged-");
    ASSERT_EQ(names.size(), 3U) << testing::PrintToString(names);
    EXPECT_EQ(names[0], "s.db.damaged-20200103T000000Z");
    EXPECT_EQ(names[1], "s.db.damaged-20200103T000000Z-wal");
}

TEST_F(Damaged, StoresAreKeptUnderUniqueNames) {
    std::ofstream(path, std::ios::binary) << "first";
    const std::string first = moveAside(path);
    std::ofstream(path, std::ios::binary) << "second";
    const std::string second = moveAside(path);
    EXPECT_EQ(bytesOf(first), "first");
    EXPECT_EQ(bytesOf(second), "second");
}

TEST_F(Damaged, EmptyFileIsNotKept) {
    backUp("1");
    fs::resize_file(path, 0);
    EXPECT_THAT(reopened(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "x")));
    EXPECT_THAT(namesIn(folder, ".damaged-"), IsEmpty());
    EXPECT_THAT(log.text(), HasSubstr("is empty, but there are backups of it"));
    expectErrors(2);
}

TEST_F(Damaged, OpenStoreIsRebuilt) {
    Store store(path, 1h);
    store.load();
    store.write({{"gone", "1"}});
    store.rebuild({{"a", "mine"}, {"gone", std::nullopt}});
    EXPECT_THAT(store.load(), testing::Contains(Entry("a", "mine")));
    EXPECT_THAT(store.load(), testing::Not(testing::Contains(Entry("gone", "1"))));
    store.write({{"a", "again"}});
}

TEST(Backup, IsMadeOnceADayAndTwoAreKept) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    {
        Store store(path);
        EXPECT_THAT(namesIn(folder, "backup"), IsEmpty()) << "an empty store needs no backup";
        store.write({{"a", "1"}});
        EXPECT_THAT(namesIn(folder, "backup"), ElementsAre("s.db.backup-1"));
        store.write({{"a", "2"}});
        EXPECT_THAT(namesIn(folder, "backup"), ElementsAre("s.db.backup-1"));
    }
    EXPECT_THAT(Database(path + ".backup-1").load(), ElementsAre(Entry("a", "1")));
    const auto made = fs::last_write_time(path + ".backup-1");
    // Whether opening the store makes a backup when the newest one has this age.
    const auto isMade = [&path, made](std::chrono::minutes age) {
        fs::last_write_time(path + ".backup-1", made - age);
        { Store store(path); }
        return fs::last_write_time(path + ".backup-1") != made - age;
    };
    EXPECT_FALSE(isMade(59min)) << "the second backup is due an hour after the first";
    EXPECT_THAT(namesIn(folder, "backup"), ElementsAre("s.db.backup-1"));
    EXPECT_TRUE(isMade(61min));
    EXPECT_THAT(namesIn(folder, "backup"), ElementsAre("s.db.backup-1", "s.db.backup-2"));
    EXPECT_FALSE(isMade(23h + 59min));
    EXPECT_TRUE(isMade(24h + 1min));
    EXPECT_EQ(fs::last_write_time(path + ".backup-2"), made - 24h - 1min);
    EXPECT_TRUE(isMade(-2min)) << "the clock was set back";
    EXPECT_THAT(namesIn(folder, "backup"), ElementsAre("s.db.backup-1", "s.db.backup-2"));
    EXPECT_EQ(fs::last_write_time(path + ".backup-2"), made + 2min);
}

TEST(FirstDay, SurvivesFlippedHeaderBits) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    {
        Store store(path);
        store.load();
        store.write({{"a", "1"}});
        store.write({{"a", "2"}});
    }
    const std::string whole = bytesOf(path);
    ASSERT_GT(whole.size(), 100U);
    fakes::LogCapture log;
    std::vector<int> newer;
    for (std::size_t bit = 0; bit < 8 * 100; ++bit) {
        log.forget();
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        std::ofstream(path, std::ios::binary) << damaged;
        try {
            Store store(path);
            EXPECT_THAT(store.load(), testing::AnyOf(ElementsAre(Entry("a", "1")), ElementsAre(Entry("a", "2"))))
                << bit;
            store.write({{"a", "3"}});
        } catch (const StoreException& error) {
            const std::string text = error.what();
            const auto at = text.find("store format ");
            EXPECT_NE(at, std::string::npos) << bit << ": " << text << "\n" << log.text();
            if (at == std::string::npos) continue;
            newer.push_back(std::stoi(text.substr(at + 13)));
        }
    }
    EXPECT_THAT(newer, ElementsAre(3, 6, 10, 18)) << "these look like the formats of newer versions";
    fs::resize_file(path, 50);
    EXPECT_EQ(Store(path).load().size(), 1U);
}

TEST(Backup, IsMadeWhileTheStoreIsOpen) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    Store store(path, 0ms);
    store.write({{"a", "1"}});
    store.write({{"a", "2"}});
    EXPECT_THAT(Store(path + ".backup-1").load(), ElementsAre(Entry("a", "2")));
    EXPECT_THAT(Store(path + ".backup-2").load(), ElementsAre(Entry("a", "1")));
    struct stat status {};
    ASSERT_EQ(::stat((path + ".backup-1").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(Backup, FailureDoesNotFailTheWrite) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "s.db.backup-new");
    fakes::LogCapture log;
    Store store(folder / "s.db", 0ms);
    store.write({{"a", "1"}});
    EXPECT_THAT(store.load(), ElementsAre(Entry("a", "1")));
    const fakes::LogCapture::Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, "warning");
    EXPECT_THAT(lines[0].text, HasSubstr("No backup of the settings was made: "));
}

}  // namespace
}  // namespace propertyservice
