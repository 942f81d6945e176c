#include "store/Store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

namespace propertyservice {

namespace {

// "ZAVp" in the file's header: a database of something else is not taken for an empty store.
constexpr int applicationId = 0x5a415670;
constexpr std::chrono::milliseconds syncDelay{500};
constexpr int busyMilliseconds = 2000;

std::string reasonOf(int error) { return std::generic_category().message(error); }

// Settings hold credentials: nobody else reads them. The write-ahead log takes over the mode of the file.
void createIfMissing(const std::string& path) {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::exists(folder, error)) {
        std::filesystem::create_directories(folder, error);
        if (error) {
            throw StoreException(path + ": its folder cannot be made: " + error.message());
        }
    }
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) throw StoreException(path + ": cannot be opened for writing: " + reasonOf(errno));
    struct stat status {};
    const bool regular = ::fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    ::close(file);
    if (!regular) throw StoreException(path + ": is no regular file");
}

// A new file's name is not safe before its folder is synced.
void syncFolder(const std::string& path) {
    std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (folder.empty()) folder = ".";
    const int file = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0) return;
    ::fsync(file);
    ::close(file);
}

}  // namespace

void Store::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close(database); }
void Store::FinalizeStatement::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Store::Store(const std::string& path) : path_(path) {
    createIfMissing(path_);
    refuseForeignFile();
    open();
    prepareSchema();
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(database_.get(),
                           "INSERT INTO property (key, value) VALUES (?1, ?2) "
                           "ON CONFLICT (key) DO UPDATE SET value = excluded.value",
                           -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
        fail("cannot be prepared");
    }
    upsert_.reset(statement);
    try {
        logSync_ = std::make_unique<LogSync>(path_ + "-wal", syncDelay);
    } catch (const std::system_error& error) {
        throw StoreException(path_ + ": its log cannot be synced: " + error.what());
    }
}

Store::~Store() = default;

// Looks at the file's header without SQLite, which would already move a log that belongs to a newer version.
void Store::refuseForeignFile() const {
    std::array<unsigned char, 100> header{};
    const int file = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw StoreException(path_ + ": cannot be read: " + reasonOf(errno));
    const ssize_t length = ::pread(file, header.data(), header.size(), 0);
    const int error = errno;
    ::close(file);  // before SQLite opens it: closing later would drop SQLite's locks
    if (length < 0) throw StoreException(path_ + ": cannot be read: " + reasonOf(error));
    if (length == 0) return;
    const std::string magic(reinterpret_cast<const char*>(header.data()), 15);
    if (length < static_cast<ssize_t>(header.size()) || magic != "SQLite format 3") {
        throw StoreException(path_ + ": is no property store; name another file with --store");
    }
    const auto number = [&header](std::size_t at) {
        return static_cast<std::int32_t>(std::uint32_t{header[at]} << 24 | std::uint32_t{header[at + 1]} << 16 |
                                         std::uint32_t{header[at + 2]} << 8 | std::uint32_t{header[at + 3]});
    };
    if (number(68) == applicationId && number(60) > version) {
        throw StoreException(path_ + ": was written by a newer version (store format " + std::to_string(number(60)) +
                             ", this version knows " + std::to_string(version) + "); it stays as it is");
    }
    const bool empty = number(68) == 0 && number(60) == 0 && number(40) == 0;  // 40: schema cookie
    if (number(68) != applicationId && !empty) {
        throw StoreException(path_ + ": is a database of something else; name another file with --store");
    }
}

void Store::open() {
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path_.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) fail("cannot be opened");
    sqlite3_extended_result_codes(database, 1);
    sqlite3_busy_timeout(database, busyMilliseconds);
    // A set writes one page to the log: of this size that costs little more than half of what the default size does.
    execute("PRAGMA page_size = 1024");
    // Exclusive before anything is read: no shared memory file, no locking per commit, and no second service.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = NORMAL");
    execute("PRAGMA wal_autocheckpoint = 4000");
}

void Store::prepareSchema() {
    execute("BEGIN EXCLUSIVE");
    const int found = numberOf("PRAGMA user_version");
    if (found > version) fail("was written by a newer version; it stays as it is");
    if (found == 0) {
        execute("CREATE TABLE property (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) STRICT, WITHOUT ROWID");
        execute(("PRAGMA application_id = " + std::to_string(applicationId)).c_str());
        execute(("PRAGMA user_version = " + std::to_string(version)).c_str());
    }
    execute("COMMIT");
    // What an earlier run left in the log is in the file, and on the disk, from here on.
    execute("PRAGMA wal_checkpoint(TRUNCATE)");
    if (found == 0) syncFolder(path_);
}

int Store::numberOf(const char* pragma) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), pragma, -1, &statement, nullptr) != SQLITE_OK) fail("cannot be read");
    const std::unique_ptr<sqlite3_stmt, FinalizeStatement> guard(statement);
    if (sqlite3_step(statement) != SQLITE_ROW) fail("cannot be read");
    return sqlite3_column_int(statement, 0);
}

std::vector<IStore::Entry> Store::load() {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), "SELECT key, value FROM property", -1, &statement, nullptr) != SQLITE_OK) {
        fail("cannot be read");
    }
    const std::unique_ptr<sqlite3_stmt, FinalizeStatement> guard(statement);
    const auto text = [statement](int column) {
        const void* bytes = sqlite3_column_blob(statement, column);
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        return size == 0 ? std::string() : std::string(static_cast<const char*>(bytes), size);
    };
    std::vector<Entry> entries;
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW) entries.emplace_back(text(0), text(1));
    if (result != SQLITE_DONE) fail("cannot be read");
    return entries;
}

void Store::write(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    try {
        if (entries.size() == 1) {
            put(entries.front());  // a statement on its own is a transaction, for two statements less
        } else {
            execute("BEGIN IMMEDIATE");
            for (const Entry& entry : entries) put(entry);
            execute("COMMIT");
        }
    } catch (const StoreException&) {
        if (sqlite3_get_autocommit(database_.get()) == 0) {
            sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
        throw;
    }
    logSync_->written();
}

void Store::put(const Entry& entry) {
    sqlite3_stmt* statement = upsert_.get();
    sqlite3_bind_text(statement, 1, entry.first.data(), static_cast<int>(entry.first.size()), SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, entry.second.data(), static_cast<int>(entry.second.size()), SQLITE_STATIC);
    const int result = sqlite3_step(statement);
    if (result != SQLITE_DONE) {
        const std::string reason = sqlite3_errmsg(database_.get());
        sqlite3_reset(statement);
        throw StoreException(path_ + ": cannot store " + entry.first + ": " + reason);
    }
    if (sqlite3_reset(statement) != SQLITE_OK) fail("cannot store " + entry.first);
}

void Store::execute(const char* sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot be used");
}

void Store::fail(const std::string& what) const {
    const int code = sqlite3_errcode(database_.get()) & 0xff;
    std::string reason = sqlite3_errmsg(database_.get());
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) reason = "another process uses it";
    throw StoreException(path_ + ": " + what + ": " + reason);
}

}  // namespace propertyservice
