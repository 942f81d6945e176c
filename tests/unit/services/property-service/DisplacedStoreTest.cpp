// A store loses nothing when its files are deleted or replaced while it is open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "StoredValuesEqual.h"
#include "TemporaryFolder.h"
#include "fakes/LogCapture.h"
#include "store/Store.h"

namespace propertyservice {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Entry = IStore::Entry;

const std::string source = "services/property-service/store/Store";

std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class DisplacedStore : public testing::Test {
 protected:
    void SetUp() override {
        store = std::make_unique<Store>(path);
        store->load();
        for (int number = 1; number <= 20; ++number) store->write({{"a", std::to_string(number)}, {"kept", "x"}});
        log.forget();
    }

    // The entries that a new service would load if this one were killed now.
    std::vector<Entry> entriesAfterKill() {
        const fs::path copy = folder / "copy";
        fs::remove_all(copy);
        fs::create_directories(copy);
        for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(path).parent_path())) {
            if (entry.path().filename().string().compare(0, 4, "s.db") == 0) fs::copy(entry.path(), copy, recursive);
        }
        return entriesOf(Store(copy / "s.db").load());
    }

    // Expects that the next write logs the report and rewrites the files, and that later writes log nothing.
    void expectRewrite(const std::string& report) {
        store->write({{"b", "new"}});
        EXPECT_THAT(log.lines(), ElementsAre(fakes::error(source, report + "; the settings were rewritten: 2 stored "
                                                                           "values")));
        log.forget();
        const std::vector<Entry> all{{"a", "20"}, {"kept", "x"}, {"b", "new"}};
        EXPECT_THAT(entriesAfterKill(), testing::UnorderedElementsAreArray(all));
        EXPECT_THAT(store->load(), testing::UnorderedElementsAreArray(all));
        store->write({{"a", "21"}});
        EXPECT_THAT(entriesAfterKill(), UnorderedElementsAre(Entry("a", "21"), Entry("kept", "x"), Entry("b", "new")));
        EXPECT_THAT(log.lines(), IsEmpty());
        store.reset();
        EXPECT_THAT(Store(path).load(), UnorderedElementsAre(Entry("a", "21"), Entry("kept", "x"), Entry("b", "new")));
        EXPECT_THAT(log.lines(), IsEmpty());
        EXPECT_FALSE(fs::exists(path + ".new"));
        EXPECT_FALSE(fs::exists(path + "-shm")) << "the index of the log must be in memory";
    }

    static constexpr fs::copy_options recursive = fs::copy_options::recursive;
    const TemporaryFolder folder;
    const std::string home = folder / "zav";
    const std::string path = home + "/s.db";
    fakes::LogCapture log;
    std::unique_ptr<Store> store;
};

TEST_F(DisplacedStore, IsRewrittenIfItsFileIsDeleted) {
    fs::remove(path);
    expectRewrite(path + ": was deleted while in use");
}

TEST_F(DisplacedStore, IsRewrittenIfItsLogIsDeleted) {
    fs::remove(path + "-wal");
    expectRewrite(path + "-wal: was deleted while in use");
}

TEST_F(DisplacedStore, IsRewrittenIfItsLogIsRenamed) {
    fs::rename(path + "-wal", path + "-elsewhere");
    expectRewrite(path + "-wal: was deleted while in use");
}

TEST_F(DisplacedStore, IsRewrittenWithABackupIfAllFilesAreDeleted) {
    for (const char* name : {"", "-wal", ".backup-1"}) ASSERT_TRUE(fs::remove(path + name)) << name;
    expectRewrite(path + ": was deleted while in use");
    EXPECT_THAT(Store(path + ".backup-1").load(), SizeIs(3));
}

TEST_F(DisplacedStore, OverwritesTheRestOfAnEarlierAttempt) {
    std::ofstream(path + ".new") << "half a store";
    fs::remove(path);
    expectRewrite(path + ": was deleted while in use");
}

TEST_F(DisplacedStore, IsRewrittenIfItsFolderIsDeleted) {
    fs::remove_all(home);
    expectRewrite(path + ": was deleted while in use");
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(DisplacedStore, IsRewrittenIfItsFolderIsRenamed) {
    fs::rename(home, home + "-other");
    const std::string before = bytesOf(home + "-other/s.db") + bytesOf(home + "-other/s.db-wal");
    expectRewrite(path + ": was deleted while in use");
    EXPECT_TRUE(bytesOf(home + "-other/s.db") + bytesOf(home + "-other/s.db-wal") == before);
}

TEST_F(DisplacedStore, KeepsAFileThatReplacedIt) {
    std::ofstream(folder / "other") << "of another program";
    fs::rename(folder / "other", path);
    store->write({{"b", "new"}});
    ASSERT_THAT(log.lines(), SizeIs(1));
    EXPECT_EQ(log.lines()[0].level, "error");
    EXPECT_THAT(log.lines()[0].text,
                AllOf(HasSubstr(path + ": was replaced while in use; the other file is kept as " + path + ".damaged-"),
                      HasSubstr("; the settings were rewritten: 2 stored values")));
    std::vector<std::string> kept;
    for (const fs::directory_entry& entry : fs::directory_iterator(home)) {
        if (entry.path().string().find(".damaged-") != std::string::npos) kept.push_back(entry.path());
    }
    ASSERT_THAT(kept, SizeIs(1)) << "the log does not belong to the other file";
    EXPECT_EQ(bytesOf(kept[0]), "of another program");
    EXPECT_THAT(entriesAfterKill(), UnorderedElementsAre(Entry("a", "20"), Entry("kept", "x"), Entry("b", "new")));
}

TEST_F(DisplacedStore, IgnoresALogThatReplacedItsOwn) {
    std::string foreign;
    {
        Store other(folder / "other.db");
        other.load();
        for (int number = 0; number < 50; ++number) other.write({{"a", "foreign"}, {"z", "foreign"}});
        foreign = bytesOf(folder / "other.db-wal");
    }
    std::ofstream(folder / "log", std::ios::binary) << foreign;
    fs::rename(folder / "log", path + "-wal");
    expectRewrite(path + "-wal: was replaced while in use");
}

TEST_F(DisplacedStore, IsRewrittenByTheDestructor) {
    fs::remove_all(home);
    store.reset();
    EXPECT_THAT(log.lines(), ElementsAre(fakes::error(source, path + ": was deleted while in use; the settings were "
                                                                     "rewritten: 2 stored values")));
    EXPECT_THAT(Store(path).load(), UnorderedElementsAre(Entry("a", "20"), Entry("kept", "x")));
}

TEST_F(DisplacedStore, RefusesWritesUntilItCanBeRewritten) {
    fs::remove_all(home);
    std::ofstream(home) << "a file where the folder was";
    EXPECT_THROW(store->write({{"a", "lost"}}), StoreException);
    EXPECT_THROW(store->write({{"b", "lost"}}), StoreException);
    EXPECT_THAT(log.lines(), IsEmpty()) << "the exception is the report";
    fs::remove(home);
    expectRewrite(path + ": was deleted while in use");
}

TEST_F(DisplacedStore, LogsLostSettingsIfTheDestructorFails) {
    fs::remove_all(home);
    std::ofstream(home) << "a file where the folder was";
    store.reset();
    ASSERT_THAT(log.lines(), SizeIs(1));
    EXPECT_EQ(log.lines()[0].level, "error");
    EXPECT_THAT(log.lines()[0].text,
                AllOf(HasSubstr("Not a directory"), HasSubstr("; the settings in the deleted files are lost")));
}

// Locks the database as a service does. Without a Store: a forked process must not start threads.
bool holdOpen(const std::string& path) {
    sqlite3* database = nullptr;
    return sqlite3_open(path.c_str(), &database) == SQLITE_OK &&
           sqlite3_exec(database, "PRAGMA locking_mode = EXCLUSIVE; BEGIN IMMEDIATE", nullptr, nullptr, nullptr) ==
               SQLITE_OK;
}

TEST_F(DisplacedStore, LeavesTheFileOfAnotherServiceUnchanged) {
    const std::string theirs = folder / "theirs.db";
    {
        Store other(theirs);
        other.load();
        other.write({{"theirs", "1"}});
    }
    fs::remove_all(home);
    fs::create_directory(home);
    fs::rename(theirs, path);
    int ready[2];
    int done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    const pid_t child = ::fork();
    char byte = 'x';
    if (child == 0) {
        ::close(ready[0]);
        ::close(done[1]);
        if (!holdOpen(path)) ::_exit(1);
        static_cast<void>(!::write(ready[1], &byte, 1));
        static_cast<void>(!::read(done[0], &byte, 1));
        ::_exit(0);
    }
    ::close(ready[1]);  // so that a child that dies ends the wait
    ::close(done[0]);
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    try {
        store->write({{"a", "lost"}});
        ADD_FAILURE() << "was written";
    } catch (const StoreException& error) {
        EXPECT_EQ(error.what(), path + ": was replaced while in use; another process uses the new file");
    }
    EXPECT_THAT(entriesAfterKill(), UnorderedElementsAre(Entry("theirs", "1")));
    ASSERT_EQ(::write(done[1], &byte, 1), 1);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    ::close(ready[0]);
    ::close(done[1]);
    store->write({{"b", "new"}});
    EXPECT_THAT(entriesAfterKill(), UnorderedElementsAre(Entry("a", "20"), Entry("kept", "x"), Entry("b", "new")));
}

TEST_F(DisplacedStore, IsNotReportedIfNothingWasTouched) {
    const auto inode = [this] {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_ino;
    };
    const ino_t before = inode();
    const std::string large(60000, 'x');
    for (int number = 0; number < 300; ++number) store->write({{"a", large + std::to_string(number)}});
    EXPECT_LT(fs::file_size(path + "-wal"), 20U * 1024 * 1024) << "the log must have been merged meanwhile";
    EXPECT_EQ(inode(), before);
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace propertyservice
