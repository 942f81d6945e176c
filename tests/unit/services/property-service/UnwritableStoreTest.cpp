// Opening a store on a disk that is full, read-only or missing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "SmallDisk.h"
#include "StoredValuesEqual.h"
#include "TemporaryFolder.h"
#include "fakes/LogCapture.h"
#include "store/Store.h"

namespace propertyservice {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using Entry = IStore::Entry;

const std::string source = "services/property-service/store/Store";

// A log line of the store at this level.
auto line(const std::string& level, const std::string& begin, const std::string& end) {
    return AllOf(Field(&fakes::LogLine::level, level), Field(&fakes::LogLine::source, source),
                 Field(&fakes::LogLine::text, AllOf(StartsWith(begin), EndsWith(end))));
}

constexpr char served[] = "; stored settings can be read but not changed until the disk is writable";

class UnwritableStart : public testing::Test {
 protected:
    void SetUp() override { fs::create_directories(disk / "zav"); }

    void makeStore() {
        Store store(path);
        store.load();
        store.write({{"a", "1"}, {"b", "2"}});
    }

    // Opening the store logs one line; writes fail until `mend` is called and succeed afterwards.
    template <typename Mend>
    void expectRefusalUntil(Mend mend, const std::string& at, const std::vector<Entry>& held) {
        {
            log.forget();
            Store store(at);
            EXPECT_THAT(log.lines(), ElementsAre(line("error", at + ": ", served)));
            EXPECT_THAT(store.load(), testing::UnorderedElementsAreArray(held));
            EXPECT_THROW(store.write({{"c", "3"}}), UnwritableStore);
            EXPECT_THROW(store.write({{"c", "3"}}), UnwritableStore);
            EXPECT_EQ(store.syncs(), 0U);
            mend();
            store.write({{"c", "4"}});
        }
        log.forget();
        std::vector<Entry> after = held;
        after.emplace_back("c", "4");
        EXPECT_THAT(Store(at).load(), testing::UnorderedElementsAreArray(after));
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    const TemporaryFolder folder;
    const SmallDisk disk{folder / "disk"};
    const std::string path = disk / "zav/s.db";
    fakes::LogCapture log;
};

TEST_F(UnwritableStart, OnAReadOnlyDiskServesWhatIsStored) {
    makeStore();
    disk.setReadOnly(true);
    expectRefusalUntil([this] { disk.setReadOnly(false); }, path, {{"a", "1"}, {"b", "2"}});
}

TEST_F(UnwritableStart, OnAReadOnlyDiskWithoutAStoreIsEmpty) {
    disk.setReadOnly(true);
    expectRefusalUntil([this] { disk.setReadOnly(false); }, path, {});
}

TEST_F(UnwritableStart, OnAReadOnlyDiskWithoutItsFolderIsEmpty) {
    disk.setReadOnly(true);
    expectRefusalUntil([this] { disk.setReadOnly(false); }, disk / "missing/folder/s.db", {});
}

TEST_F(UnwritableStart, OnAFullDiskServesWhatIsStored) {
    makeStore();
    disk.fill();
    {
        Store store(path);
        EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2")));
        EXPECT_THROW(store.write({{"c", "3"}}), UnwritableStore);
        EXPECT_THROW(store.write({{"c", "3"}}), UnwritableStore);
        disk.makeRoom();
        store.write({{"c", "4"}});
    }
    EXPECT_THAT(Store(path).load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2"), Entry("c", "4")));
}

TEST_F(UnwritableStart, OnAFullDiskWithoutAStoreIsEmpty) {
    disk.fill();
    expectRefusalUntil([this] { disk.makeRoom(); }, path, {});
}

TEST_F(UnwritableStart, OnAReadOnlyDiskReadsTheLogOfAKilledService) {
    {
        Store store(path);
        store.load();
        store.write({{"a", "1"}});
        store.write({{"b", "2"}});
        for (const char* name : {"", "-wal"}) fs::copy_file(path + name, disk / ("copy.db" + std::string(name)));
    }
    disk.setReadOnly(true);
    EXPECT_THAT(Store(disk / "copy.db").load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2")));
}

TEST_F(UnwritableStart, OnAReadOnlyDiskServesTheBackupOfADamagedStore) {
    makeStore();
    std::fstream(path, std::ios::in | std::ios::out | std::ios::binary).seekp(1100) << std::string(2000, 'x');
    disk.setReadOnly(true);
    log.forget();
    Store store(path);
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2")));
    const fakes::LogCapture::Lines lines = log.lines();
    ASSERT_THAT(lines, ElementsAre(line("error", "", ""), line("error", path + ": ", served)));
    EXPECT_THAT(lines[0].text, HasSubstr("copy.db: is damaged: "));
}

TEST_F(UnwritableStart, OnAReadOnlyDiskServesTheBackupOfAMissingStore) {
    makeStore();
    fs::remove(path);
    disk.setReadOnly(true);
    Store store(path);
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2")));
    disk.setReadOnly(false);
    store.write({{"c", "3"}});
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2"), Entry("c", "3")));
}

TEST_F(UnwritableStart, OnAReadOnlyDiskFailsIfNothingIsReadable) {
    std::ofstream(path) << "some text that is longer than nothing";
    disk.setReadOnly(true);
    log.forget();
    try {
        const Store store(path);
        FAIL() << "new values would mix with the stored ones";
    } catch (const UnwritableStore& error) {
        FAIL() << error.what();
    } catch (const StoreException& error) {
        EXPECT_EQ(error.what(), path + ": can be neither read nor written");
    }
    EXPECT_THAT(log.lines(), ElementsAre(line("error", "", "name another file with --store")));
}

TEST_F(UnwritableStart, FailsIfTheFolderIsAFile) {
    std::ofstream(disk / "file") << "x";
    for (const char* name : {"file/s.db", "file/deeper/s.db"}) {
        try {
            const Store store(disk / name);
            FAIL() << name;
        } catch (const UnwritableStore& error) {
            FAIL() << "must not be UnwritableStore: " << error.what();
        } catch (const StoreException& error) {
            EXPECT_THAT(error.what(), AllOf(StartsWith(disk / name), HasSubstr(": Not a directory")));
        }
    }
}

}  // namespace
}  // namespace propertyservice
