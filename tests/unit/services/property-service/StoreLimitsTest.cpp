// A store whose process has no descriptors, no temporary folder or little disk; damage that a backup finds.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "Sanitized.h"
#include "SmallDisk.h"
#include "StoredValuesEqual.h"
#include "TemporaryFolder.h"
#include "common/Descriptor.h"
#include "fakes/FewDescriptors.h"
#include "fakes/LogCapture.h"
#include "store/Store.h"

namespace propertyservice {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using Entry = IStore::Entry;

/// Moves to a folder, and back in the destructor.
class WorkingFolder {
 public:
    explicit WorkingFolder(const std::string& path) { fs::current_path(path); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;
    ~WorkingFolder() {
        std::error_code ignored;
        fs::current_path(before_, ignored);
    }

 private:
    const fs::path before_ = fs::current_path();
};

/// TMPDIR has another value for as long as this lives.
class TemporaryDirectory {
 public:
    explicit TemporaryDirectory(const std::string& path) {
        if (const char* const text = std::getenv("TMPDIR")) before_ = text;
        ::setenv("TMPDIR", path.c_str(), 1);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        if (before_.empty()) {
            ::unsetenv("TMPDIR");
        } else {
            ::setenv("TMPDIR", before_.c_str(), 1);
        }
    }

 private:
    std::string before_;
};

/// Sees the files that appear in a folder, also those that are removed at once.
class FolderWatch {
 public:
    explicit FolderWatch(const std::string& path) {
        if (::inotify_add_watch(events_.get(), path.c_str(), IN_CREATE) < 0)
            throw std::runtime_error("cannot watch " + path);
    }

    /// The name of one that appeared since the last call, or nothing.
    std::string created() const {
        alignas(inotify_event) char buffer[4096];
        if (::read(events_.get(), buffer, sizeof buffer) <= 0) return "";
        return reinterpret_cast<const inotify_event*>(buffer)->name;
    }

 private:
    const common::Descriptor events_{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
};

void overwrite(const std::string& path, std::streamoff at, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file << bytes;
}

std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(StoreWithoutDescriptors, IsRefusedAndKeepsItsValues) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs what is missing here";
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    {
        Store store(path);
        store.write({{"a", "1"}, {"b", "2"}});
    }
    bool opened = false;
    for (rlim_t count = 0; !opened; ++count) {
        ASSERT_LT(count, 20U);
        try {
            const fakes::FewDescriptors few(count);
            Store store(path);
            store.write({{"c", "3"}});
            opened = true;
        } catch (const StoreException& error) {
            EXPECT_THAT(error.what(), StartsWith(path)) << count;
        }
        if (!opened) {
            EXPECT_THAT(Store(path).load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2"))) << count;
        }
    }
    EXPECT_THAT(Store(path).load(), UnorderedElementsAre(Entry("a", "1"), Entry("b", "2"), Entry("c", "3")));
    for (const fs::directory_entry& entry : fs::directory_iterator(folder / "")) {
        EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr("damaged")));
    }
}

TEST(StoreWithoutDescriptors, KeepsAnsweredValuesIfABackupFails) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs what is missing here";
    const TemporaryFolder folder;
    const fakes::LogCapture log;
    Store store(folder / "s.db", 0ms);
    store.write({{"a", "1"}});
    {
        const fakes::FewDescriptors none(0);
        store.write({{"a", "2"}});
    }
    ASSERT_EQ(log.lines().size(), 1U) << log.text();
    EXPECT_EQ(log.lines()[0].level, "warning");
    EXPECT_THAT(log.lines()[0].text, StartsWith("No backup of the settings was made: "));
    EXPECT_THAT(store.load(), ElementsAre(Entry("a", "2")));
    store.write({{"a", "3"}});
    EXPECT_THAT(Store(folder / "s.db.backup-1").load(), ElementsAre(Entry("a", "3")));
}

TEST(StoreInTheWorkingFolder, IsRestoredFromItsBackup) {
    const TemporaryFolder folder;
    const WorkingFolder inside(folder / "");
    {
        Store store("s", 0ms);
        store.write({{"a", "1"}});
    }
    std::ofstream("x") << "a name shorter than any of the store's";
    overwrite("s", 0, "garbage garbage garbage");
    const fakes::LogCapture log;
    EXPECT_THAT(Store("s").load(), ElementsAre(Entry("a", "1")));
    ASSERT_EQ(log.lines().size(), 2U) << log.text();
    EXPECT_THAT(log.lines()[0].text, HasSubstr("s: its header was overwritten; it is kept as s.damaged-"));
    for (int round = 0; round < 3; ++round) {
        overwrite("s", 0, "garbage garbage garbage");
        EXPECT_THAT(Store("s").load(), ElementsAre(Entry("a", "1")));
    }
    int damaged = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(".")) {
        damaged += entry.path().filename().string().find("s.damaged-") == 0 ? 1 : 0;
    }
    EXPECT_EQ(damaged, 2) << "older ones must be removed";
    EXPECT_TRUE(fs::exists("x"));
}

TEST(StoreOfARebuild, ReplacesAFileThatIsGone) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    Store store(path, 1h);
    store.write({{"a", "1"}});
    for (const char* name : {"", "-wal", ".backup-1"}) fs::remove(path + name);
    store.rebuild({{"a", "mine"}});
    EXPECT_THAT(store.load(), ElementsAre(Entry("a", "mine")));
    store.write({{"b", "2"}});
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "mine"), Entry("b", "2")));
}

// More than the database keeps in memory, so that a backup reads the file.
constexpr int manyValues = 150;

TEST(OpenStore, ReportsDamageThatABackupFinds) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    {
        Store store(path, 24h);
        std::vector<Entry> entries{{"a", "unmistakable"}};
        for (int number = 0; number < manyValues; ++number) {
            entries.emplace_back("b" + std::to_string(number), std::string(60000, 'x'));
        }
        store.write(entries);
    }
    Store store(path, 0ms);
    const std::size_t at = bytesOf(path).find("unmistakable");
    ASSERT_NE(at, std::string::npos);
    overwrite(path, static_cast<std::streamoff>(at), "U");
    EXPECT_THROW(store.write({{"c", "1"}}), DamagedStore);
    store.rebuild({{"a", "kept in memory"}, {"c", "1"}});
    EXPECT_THAT(store.load(), Contains(Entry("a", "kept in memory")));
}

class LittleDisk : public testing::Test {
 protected:
    /// Fills the disk but for so many bytes.
    void leave(std::uintmax_t bytes) const {
        disk.fill();
        fs::resize_file(disk / "filler", fs::file_size(disk / "filler") - bytes);
    }

    const TemporaryFolder folder;
    const SmallDisk disk{folder / "disk"};
    fakes::LogCapture log;
};

TEST_F(LittleDisk, WithoutRoomForABackupStillStores) {
    Store store(disk / "s.db", 0ms);
    store.write({{"large", std::string(60000, 'x')}});
    leave(24 * 1024);
    log.forget();
    store.write({{"a", "1"}});
    ASSERT_EQ(log.lines().size(), 1U) << log.text();
    EXPECT_EQ(log.lines()[0].level, "warning");
    EXPECT_THAT(log.lines()[0].text, AllOf(StartsWith("No backup of the settings was made: "),
                                           HasSubstr("cannot be copied to"), EndsWith("database or disk is full")));
    EXPECT_THAT(Store(disk / "s.db.backup-1").load(), testing::Not(Contains(Entry("a", "1"))));
    disk.makeRoom();
    store.write({{"b", "2"}});
    EXPECT_THAT(Store(disk / "s.db.backup-1").load(), testing::IsSupersetOf({Entry("a", "1"), Entry("b", "2")}));
}

TEST_F(LittleDisk, CopiesAReadOnlyStoreToSharedMemoryIfTemporaryFilesAreOnTheSameDisk) {
    { Store(disk / "s.db").write({{"a", "1"}}); }
    disk.setReadOnly(true);
    const TemporaryDirectory same(disk / "");
    Store store(disk / "s.db");
    EXPECT_THAT(store.load(), ElementsAre(Entry("a", "1")));
}

TEST_F(LittleDisk, IsRefusedIfAReadOnlyStoreCanBeCopiedNowhere) {
    { Store(disk / "s.db").write({{"a", "1"}}); }
    const SmallDisk shared("/dev/shm");
    shared.setReadOnly(true);
    disk.setReadOnly(true);
    const TemporaryDirectory same(disk / "");
    log.forget();
    EXPECT_THROW(Store(disk / "s.db"), StoreException);
    EXPECT_THAT(log.text(), HasSubstr("/dev/shm/prop-service-"));
}

TEST_F(LittleDisk, CopiesAReadOnlyStoreNeverToTheWorkingFolder) {
    { Store(disk / "s.db").write({{"a", "1"}}); }
    disk.setReadOnly(true);
    const WorkingFolder inside(folder / "");
    const FolderWatch watch(folder / "");
    for (const char* path : {"relative", ".", "", "/missing/folder", "/dev/null"}) {
        const TemporaryDirectory invalid(path);
        EXPECT_THAT(Store(disk / "s.db").load(), ElementsAre(Entry("a", "1"))) << path;
        EXPECT_EQ(watch.created(), "") << path;
    }
}

TEST(LargeStoreOfFormat1, IsMigratedWithoutTemporaryFiles) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    { const Store store(path); }
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    const char* const makeOld =
        "ALTER TABLE property DROP COLUMN checksum; PRAGMA user_version = 1;"
        "WITH RECURSIVE number(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < 5000)"
        "INSERT INTO property SELECT 'key' || n, printf('%.100c', 'v') FROM number";
    EXPECT_EQ(sqlite3_exec(database, makeOld, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
    const WorkingFolder inside(folder / "");
    fs::create_directory("relative");
    const TemporaryDirectory temporary("relative");
    const FolderWatch watch("relative");
    sqlite3_shutdown();  // it reads TMPDIR when it is initialised, which the next use does
    EXPECT_EQ(Store(path).load().size(), 5000U);
    EXPECT_EQ(watch.created(), "");
    sqlite3_shutdown();
}

/// The descriptor of this process that reads the file.
int readerOf(const std::string& path) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const int number = std::stoi(entry.path().filename());
        if (fs::read_symlink(entry.path(), error) == path && (::fcntl(number, F_GETFL) & O_ACCMODE) == O_RDONLY) {
            return number;
        }
    }
    return -1;
}

TEST(LogSyncOnAFailingDisk, LogsTheFailureOnceAndItsEnd) {
    const TemporaryFolder folder;
    const std::string path = folder / "log";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);  // which cannot be synced
    const common::Descriptor other(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    const fakes::LogCapture log;
    LogSync sync(path, 1ms);
    sync.written();
    while (log.lines().empty()) std::this_thread::yield();
    const auto later = std::chrono::steady_clock::now() + 50ms;  // many more attempts, which fail, too
    while (std::chrono::steady_clock::now() < later) sync.written();
    EXPECT_EQ(sync.syncs(), 0U);
    EXPECT_THAT(log.lines(), ElementsAre(fakes::error("services/property-service/store/LogSync",
                                                      "Cannot sync " + path +
                                                          " to the disk: Invalid argument; a power cut may cost "
                                                          "recent settings")));
    std::ofstream(folder / "healthy") << "x";
    const common::Descriptor healthy(::open((folder / "healthy").c_str(), O_RDONLY | O_CLOEXEC));
    const int reader = readerOf(path);
    ASSERT_GE(reader, 0);
    ASSERT_EQ(::syscall(SYS_dup3, healthy.get(), reader, O_CLOEXEC), reader);
    while (sync.syncs() == 0) std::this_thread::yield();
    ASSERT_EQ(log.lines().size(), 2U) << log.text();
    EXPECT_EQ(log.lines()[1],
              fakes::info("services/property-service/store/LogSync", path + " is synced to the disk again"));
}

TEST(LogSyncOnAFailingDisk, MissingLogIsAnError) {
    const TemporaryFolder folder;
    EXPECT_THROW(LogSync(folder / "none", 1ms), std::system_error);
}

}  // namespace
}  // namespace propertyservice
