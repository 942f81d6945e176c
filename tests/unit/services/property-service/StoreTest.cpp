#include "store/Store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "StoredValuesEqual.h"
#include "TemporaryFolder.h"

namespace propertyservice {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using Entry = IStore::Entry;

std::string errorOf(const std::string& path) {
    try {
        Store store(path);
    } catch (const StoreException& error) {
        return error.what();
    }
    return "no error";
}

std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void execute(const std::string& path, const char* sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

TEST(Store, KeepsValuesAcrossARestart) {
    const TemporaryFolder folder;
    const std::string path = folder / "deeper/still/properties.db";
    {
        Store store(path);
        EXPECT_TRUE(store.load().empty());
        store.write({{"a", "1"}});
        store.write({{"b", "2"}, {"a", "3"}, {"c", ""}});
        store.write({});
        EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "3"), Entry("b", "2"), Entry("c", "")));
    }
    Store again(path);
    EXPECT_THAT(again.load(), UnorderedElementsAre(Entry("a", "3"), Entry("b", "2"), Entry("c", "")));
}

TEST(Store, KeepsLargeAndNonAsciiValues) {
    const TemporaryFolder folder;
    const std::string value = std::string(64 * 1024 - 6, 'x') + "ä\n€";
    {
        Store store(folder / "s.db");
        store.write({{"a", value}});
    }
    EXPECT_THAT(Store(folder / "s.db").load(), UnorderedElementsAre(Entry("a", value)));
}

TEST(Store, SyncsToTheDiskInTheBackground) {
    const TemporaryFolder folder;
    Store store(folder / "s.db");
    const auto start = std::chrono::steady_clock::now();
    store.write({{"a", "1"}});
    while (store.syncs() == 0 && std::chrono::steady_clock::now() < start + std::chrono::seconds(20)) {
        std::this_thread::yield();
    }
    EXPECT_EQ(store.syncs(), 1U);
}

TEST(Store, IsReadableByItsOwnerOnly) {
    const TemporaryFolder folder;
    Store store(folder / "s.db");
    store.write({{"a", "1"}});
    for (const char* name : {"s.db", "s.db-wal"}) {
        struct stat status {};
        ASSERT_EQ(::stat((folder / name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << name;
    }
}

TEST(Store, OfANewerVersionIsRefusedUnchanged) {
    const TemporaryFolder folder;
    { Store(folder / "s.db").write({{"a", "1"}}); }
    execute(folder / "s.db", "PRAGMA user_version = 3");
    const std::string before = bytesOf(folder / "s.db");
    std::ofstream(folder / "s.db-wal") << "a log of the newer version";
    EXPECT_EQ(
        errorOf(folder / "s.db"),
        folder / "s.db" + std::string(": was written by a newer version (store format 3, this version supports 2); it "
                                      "is left unchanged"));
    EXPECT_EQ(bytesOf(folder / "s.db"), before);
    EXPECT_EQ(bytesOf(folder / "s.db-wal"), "a log of the newer version");
}

TEST(Store, OfAnotherProgramIsRefusedUnchanged) {
    const TemporaryFolder folder;
    execute(folder / "other.db", "CREATE TABLE property (x)");
    std::ofstream(folder / "text") << "some text that is longer than nothing";
    for (const char* name : {"other.db", "text"}) {
        const std::string before = bytesOf(folder / name);
        EXPECT_THAT(errorOf(folder / name), HasSubstr("name another file with --store"));
        EXPECT_EQ(bytesOf(folder / name), before);
    }
}

TEST(Store, ThatCannotBeCreatedIsRefused) {
    const TemporaryFolder folder;
    std::ofstream(folder / "file") << "x";
    EXPECT_THAT(errorOf(folder / "file/s.db"), HasSubstr("s.db: "));
    EXPECT_THAT(errorOf(folder / ""), HasSubstr("cannot be opened for writing: Is a directory"));
}

// Runs the code in a child process and returns its result, which the exit status passes on.
template <typename Code>
int inChild(Code code) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(code());
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Store, InUseByAnotherProcessIsRefused) {
    const TemporaryFolder folder;
    Store store(folder / "s.db");
    EXPECT_EQ(
        inChild([&folder] { return errorOf(folder / "s.db").find("another process uses it") != std::string::npos; }),
        1);
    store.write({{"a", "1"}});
}

TEST(Store, InUseByAnotherProcessIsRefusedEvenIfDamaged) {
    const TemporaryFolder folder;
    const std::string path = folder / "s.db";
    { Store store(path); }
    Store store(path, std::chrono::milliseconds(0));
    store.write({{"a", "1"}});  // also makes a backup, which marks the file as a property store
    const auto damage = [&path] {
        return !!(std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << "garbage garbage garbage");
    };
    ASSERT_EQ(inChild(damage), 1) << "closing the file in this process would drop its locks";
    EXPECT_EQ(inChild([&path] { return errorOf(path).find("another process uses it") != std::string::npos; }), 1);
    EXPECT_TRUE(std::filesystem::exists(path + "-wal"));
}

TEST(Store, FailedWriteKeepsTheOldValuesAndALaterOneSucceeds) {
    const TemporaryFolder folder;
    Store store(folder / "s.db");
    store.write({{"a", "old"}, {"b", "old"}});
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit full = before;
    full.rlim_cur = 20000;  // like a full disk
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    EXPECT_THROW(store.write({{"a", "new"}, {"b", std::string(60000, 'x')}}), StoreException);
    EXPECT_THROW(store.write({{"a", std::string(60000, 'x')}}), StoreException);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "old"), Entry("b", "old")));
    store.write({{"a", "new"}});
    EXPECT_THAT(store.load(), UnorderedElementsAre(Entry("a", "new"), Entry("b", "old")));
}

// Runs in the child: acknowledges each completed write through the pipe.
[[noreturn]] void writeForever(const std::string& path, int acknowledge) {
    Store store(path);
    for (std::uint32_t number = 1;; ++number) {
        const std::string text = std::to_string(number);
        if (number % 50 == 0) store.write({{"first", std::string(30000, 'x')}, {"last", std::string(30000, 'x')}});
        if (number % 3 == 0) {
            store.write({{"first", text}, {"number", text}, {"last", text}});
        } else {
            store.write({{"number", text}});
        }
        if (::write(acknowledge, &number, sizeof number) != sizeof number) ::_exit(1);
    }
}

TEST(Store, LosesNoAcknowledgedWriteWhenKilled) {
    const TemporaryFolder folder;
    for (unsigned round = 0; round < 200; ++round) {
        const std::string path = folder / ("s" + std::to_string(round / 40) + ".db");
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        const pid_t child = ::fork();
        if (child == 0) writeForever(path, pipe[1]);
        ::close(pipe[1]);
        std::uint32_t acknowledged = 0;
        for (unsigned reads = 0; reads < 1 + 7 * round; ++reads) {
            ASSERT_EQ(::read(pipe[0], &acknowledged, sizeof acknowledged), sizeof acknowledged);
        }
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        while (::read(pipe[0], &acknowledged, sizeof acknowledged) == sizeof acknowledged) {
        }
        ::close(pipe[0]);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);

        Store store(path);
        std::map<std::string, std::string> values;
        for (const auto& [key, value] : store.load()) values.emplace(key, value);
        const unsigned long number = std::stoul(values["number"]);
        EXPECT_GE(number, acknowledged);
        EXPECT_LE(number, acknowledged + 1);  // the last one may have been stored but not acknowledged
        EXPECT_EQ(values["first"], values["last"]) << "half a transaction";
    }
}

TEST(LogSync, SyncsOnceForManyWritesAndAgainForLaterOnes) {
    const TemporaryFolder folder;
    std::ofstream(folder / "log") << "x";
    LogSync sync(folder / "log", std::chrono::milliseconds(20));
    for (unsigned round = 1; round <= 2; ++round) {
        for (int count = 0; count < 100; ++count) sync.written();
        while (sync.syncs() < round) std::this_thread::yield();
        EXPECT_EQ(sync.syncs(), round);
    }
}

TEST(LogSync, StopsAtOnceWithASyncPending) {
    const TemporaryFolder folder;
    std::ofstream(folder / "log") << "x";
    LogSync sync(folder / "log", std::chrono::hours(1));
    sync.written();
}

}  // namespace
}  // namespace propertyservice
