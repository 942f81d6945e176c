#include "store/Database.h"

#include <sqlite3.h>

#include <cstdint>
#include <system_error>

namespace propertyservice {

namespace {

constexpr int applicationId = 0x5a415670;  // "ZAVp"
constexpr std::chrono::milliseconds syncDelay{500};
constexpr int busyMilliseconds = 2000;

// FNV-1a over the key, a NUL, and the value: detects every change of a single byte.
std::int64_t checksum(const std::string& key, const std::string& value) {
    std::uint64_t sum = 0xcbf29ce484222325U;
    const auto take = [&sum](unsigned char byte) { sum = (sum ^ byte) * 0x100000001b3U; };
    for (const char letter : key) take(static_cast<unsigned char>(letter));
    take(0);
    for (const char letter : value) take(static_cast<unsigned char>(letter));
    return static_cast<std::int64_t>(sum);
}

std::string column(sqlite3_stmt* statement, int index) {
    const void* bytes = sqlite3_column_blob(statement, index);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, index));
    return size == 0 ? std::string() : std::string(static_cast<const char*>(bytes), size);
}

void bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

}  // namespace

void Database::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close(database); }
void Database::FinalizeStatement::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Database::Database(const std::string& path) : path_(path) {
    createIfMissing(path_);
    checkHeader(path_);
    open();
    prepareFormat();
    checkStructure();
    upsert_ = prepare(
        "INSERT INTO property (key, value, checksum) VALUES (?1, ?2, ?3) "
        "ON CONFLICT (key) DO UPDATE SET value = excluded.value, checksum = excluded.checksum",
        SQLITE_PREPARE_PERSISTENT);
    remove_ = prepare("DELETE FROM property WHERE key = ?1", SQLITE_PREPARE_PERSISTENT);
    try {
        logSync_ = std::make_unique<LogSync>(path_ + "-wal", syncDelay);
    } catch (const std::system_error& error) {
        throw UnwritableStore(path_ + ": its log cannot be synced: " + error.what());
    }
    fileMark_.emplace(path_);
    logMark_.emplace(path_ + "-wal");
}

Database::~Database() = default;

void Database::open() {
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path_.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) fail("cannot be opened");
    sqlite3_extended_result_codes(database, 1);
    // Closing must not merge the log into the file until the file's version is known.
    sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    sqlite3_busy_timeout(database, busyMilliseconds);
    // A set writes one page to the log, which takes little more than half the time of the default size.
    execute("PRAGMA page_size = 1024");
    // Set before the first read, this avoids the shared memory file and locking per commit, and excludes other
    // services.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = NORMAL");
    execute("PRAGMA wal_autocheckpoint = 4000");
}

void Database::prepareFormat() {
    execute("BEGIN EXCLUSIVE");
    const int found = numberOf("PRAGMA user_version");
    if (found > version) throw StoreException(path_ + ": " + newerVersionError(found));
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    if (found == 0) {
        execute(
            "CREATE TABLE property (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL, checksum INTEGER NOT NULL "
            "DEFAULT 0) STRICT, WITHOUT ROWID");
        execute(("PRAGMA application_id = " + std::to_string(applicationId)).c_str());
    }
    if (found == 1) {
        execute("ALTER TABLE property ADD COLUMN checksum INTEGER NOT NULL DEFAULT 0");
        const Statement rows = prepare("SELECT key, value FROM property");
        const Statement update = prepare("UPDATE property SET checksum = ?2 WHERE key = ?1");
        std::vector<std::pair<std::string, std::int64_t>> sums;
        int result = SQLITE_ROW;
        while ((result = sqlite3_step(rows.get())) == SQLITE_ROW) {
            const std::string key = column(rows.get(), 0);
            sums.emplace_back(key, checksum(key, column(rows.get(), 1)));
        }
        if (result != SQLITE_DONE) fail("cannot be read");
        for (const auto& [key, sum] : sums) {
            bind(update.get(), 1, key);
            sqlite3_bind_int64(update.get(), 2, sum);
            if (sqlite3_step(update.get()) != SQLITE_DONE) fail("cannot be migrated");
            sqlite3_reset(update.get());
        }
    }
    if (found != version) execute(("PRAGMA user_version = " + std::to_string(version)).c_str());
    execute("COMMIT");
    // Moves what an earlier run left in the log into the file, and syncs it.
    execute("PRAGMA wal_checkpoint(TRUNCATE)");
    if (found == 0) syncFolder(path_);
}

void Database::checkStructure() {
    const Statement statement = prepare("PRAGMA quick_check(1)");
    if (sqlite3_step(statement.get()) != SQLITE_ROW) fail("cannot be checked");
    const std::string verdict = column(statement.get(), 0);
    if (verdict != "ok") throw DamagedStore(path_ + ": is damaged: " + verdict);
}

Database::Statement Database::prepare(const char* sql, unsigned flags) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(database_.get(), sql, -1, flags, &statement, nullptr) != SQLITE_OK) fail("cannot be used");
    return Statement(statement);
}

int Database::numberOf(const char* pragma) {
    const Statement statement = prepare(pragma);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) fail("cannot be read");
    return sqlite3_column_int(statement.get(), 0);
}

std::vector<IStore::Entry> Database::load() {
    const Statement statement = prepare("SELECT key, value, checksum FROM property");
    std::vector<Entry> entries;
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
        std::string key = column(statement.get(), 0);
        std::string value = column(statement.get(), 1);
        if (checksum(key, value) != sqlite3_column_int64(statement.get(), 2)) {
            throw DamagedStore(path_ + ": is damaged: a stored value has a wrong checksum");
        }
        entries.emplace_back(std::move(key), std::move(value));
    }
    if (result != SQLITE_DONE) fail("cannot be read");
    return entries;
}

std::size_t Database::copyTo(const std::string& path) {
    const std::size_t rows = load().size();
    const Statement statement = prepare("VACUUM INTO ?1");
    bind(statement.get(), 1, path);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("cannot be copied to " + path);
    return rows;
}

void Database::write(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    try {
        if (entries.size() == 1) {
            put(entries.front());  // a single statement is a transaction of its own
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

void Database::put(const Entry& entry) {
    const auto& [key, value] = entry;
    sqlite3_stmt* const statement = (value ? upsert_ : remove_).get();
    bind(statement, 1, key);
    if (value) {
        bind(statement, 2, *value);
        sqlite3_bind_int64(statement, 3, checksum(key, *value));
    }
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    if (sqlite3_reset(statement) != SQLITE_OK || !done) fail("cannot store " + key);
}

void Database::execute(const char* sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot be used");
}

void Database::fail(const std::string& what) const {
    const std::string text = path_ + ": " + what + ": ";
    switch (sqlite3_errcode(database_.get()) & 0xff) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            throw StoreException(text + "another process uses it");
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            throw DamagedStore(text + sqlite3_errmsg(database_.get()));
        case SQLITE_READONLY:
        case SQLITE_FULL:
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
            throw UnwritableStore(text + sqlite3_errmsg(database_.get()));
        default:
            throw StoreException(text + sqlite3_errmsg(database_.get()));
    }
}

}  // namespace propertyservice
