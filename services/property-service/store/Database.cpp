#include "store/Database.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string_view>
#include <system_error>

namespace propertyservice {

namespace {

constexpr std::chrono::milliseconds syncDelay{500};
constexpr int busyMilliseconds = 2000;

std::string_view text(sqlite3_stmt* statement, int index) {
    const void* const bytes = sqlite3_column_blob(statement, index);
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(statement, index))};
}

// FNV-1a over the key, a NUL, and the value, which detects every change of a single byte.
std::int64_t checksum(std::string_view key, std::string_view value) {
    std::uint64_t sum = 0xcbf29ce484222325U;
    const auto take = [&sum](char byte) { sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001b3U; };
    for (const char byte : key) take(byte);
    take('\0');
    for (const char byte : value) take(byte);
    return static_cast<std::int64_t>(sum);
}

// SQL function checksum(key, value), which migrates older formats.
void checksumFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
    const auto text = [](sqlite3_value* argument) -> std::string_view {
        const void* const bytes = sqlite3_value_blob(argument);
        return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_value_bytes(argument))};
    };
    sqlite3_result_int64(context, checksum(text(arguments[0]), text(arguments[1])));
}

void bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// Whether the header of a log has the checksum that it contains. The magic number at its start tells the checksum's
// byte order.
bool isIntact(const std::string& header) {
    const auto number = [&header](std::size_t at, bool bigEndian) {
        std::uint32_t value = 0;
        for (std::size_t index = 0; index < 4; ++index) {
            value = value << 8U | static_cast<unsigned char>(header[at + (bigEndian ? index : 3 - index)]);
        }
        return value;
    };
    const bool bigEndian = (number(0, true) & 1U) != 0;
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    for (std::size_t at = 0; at < 24; at += 8) {
        first += number(at, bigEndian) + second;
        second += number(at + 4, bigEndian) + first;
    }
    return first == number(24, true) && second == number(28, true);
}

}  // namespace

void Database::Close::operator()(sqlite3* database) const { sqlite3_close(database); }
void Database::Close::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Database::Database(const std::string& path) : path_(path) {
    createIfMissing(path_);
    checkHeader(path_);
    open();
    prepareFormat();
    checkStructure();
    // Takes less time than an ON CONFLICT clause.
    replace_ = prepare("INSERT OR REPLACE INTO property (key, value, checksum) VALUES (?1, ?2, ?3)",
                       SQLITE_PREPARE_PERSISTENT);
    remove_ = prepare("DELETE FROM property WHERE key = ?1", SQLITE_PREPARE_PERSISTENT);
    try {
        logSync_ = std::make_unique<LogSync>(path_ + "-wal", syncDelay);
    } catch (const std::system_error& error) {
        throw UnwritableStore(path_ + ": its log cannot be synced: " + error.what());
    }
    file_ = idOf(path_, std::nullopt);
    log_ = idOf(path_ + "-wal", std::nullopt);
    if (!file_ || !log_) throw StoreException(path_ + ": was deleted while it was opened");
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
    sqlite3_create_function(database, "checksum", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr, checksumFunction,
                            nullptr, nullptr);
    // A set writes one page to the log, which takes little more than half the time of the default size.
    execute("PRAGMA page_size = 1024");
    // Set before the first read, this avoids the shared memory file and locking per commit, and excludes other
    // services.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = NORMAL");
    execute("PRAGMA wal_autocheckpoint = 4000");
    // Otherwise a large statement, such as a migration, copies settings to a file in $TMPDIR or in the working folder.
    execute("PRAGMA temp_store = MEMORY");
    // The structure check and `load` read the whole file, one after the other.
    execute("PRAGMA cache_size = -8192");
}

void Database::prepareFormat() {
    execute("BEGIN EXCLUSIVE");
    const int found = numberOf("PRAGMA user_version");
    if (found > version) throw StoreException(path_ + ": " + newerVersionError(found));
    execute("COMMIT");
    lostCommits_ = countLostCommits();  // before anything is written to the log
    execute("BEGIN EXCLUSIVE");
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    if (found == 0) {
        execute(
            "CREATE TABLE property (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL, checksum INTEGER NOT NULL "
            "DEFAULT 0) STRICT, WITHOUT ROWID");
        execute(("PRAGMA application_id = " + std::to_string(applicationId)).c_str());
    }
    if (found == 1) {
        execute("ALTER TABLE property ADD COLUMN checksum INTEGER NOT NULL DEFAULT 0");
        execute("UPDATE property SET checksum = checksum(key, value)");
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
    const std::string verdict(text(statement.get(), 0));
    if (verdict != "ok") throw DamagedStore(path_ + ": is damaged: " + verdict);
}

Database::Statement Database::prepare(const char* sql, unsigned flags) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(database_.get(), sql, -1, flags, &statement, nullptr) != SQLITE_OK) fail("cannot be used");
    return Statement(statement);
}

int Database::numberOf(const char* query) {
    const Statement statement = prepare(query);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) fail("cannot be read");
    return sqlite3_column_int(statement.get(), 0);
}

// SQLite silently drops all commits behind a corrupt frame, and the log can hold weeks of settings: without this, a
// phone with failing flash memory would return to old settings and nobody would know why.
std::size_t Database::countLostCommits() {
    // https://www.sqlite.org/fileformat2.html#the_write_ahead_log
    std::string header(32, '\0');
    std::string frame(24, '\0');
    const std::streamoff pageSize = numberOf("PRAGMA page_size");
    int intact = 0;
    sqlite3_wal_checkpoint_v2(database_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &intact, nullptr);
    std::ifstream log(path_ + "-wal", std::ios::binary);
    if (intact < 0 || !log.read(header.data(), 32)) return 0;
    // A frame with another salt is left from before the log was last restarted.
    std::string salt = header.substr(16, 8);
    bool isBehindDamage = !isIntact(header);  // then SQLite has ignored the log
    if (isBehindDamage && log.read(frame.data(), 24)) {
        salt = frame.substr(8, 8);
        log.seekg(-24, std::ios::cur);
    }
    bool hasFramesBehind = false;
    std::size_t lost = 0;
    log.seekg(intact * (pageSize + 24), std::ios::cur);
    for (; log.read(frame.data(), 24); log.seekg(pageSize, std::ios::cur)) {
        const bool isOfThisLog = frame.compare(8, 8, salt) == 0;
        const bool isCommit = frame.compare(4, 4, std::string(4, '\0')) != 0;
        if (isOfThisLog && isCommit) ++lost;
        hasFramesBehind = hasFramesBehind || (isBehindDamage && isOfThisLog);
        isBehindDamage = true;
    }
    return hasFramesBehind ? lost : 0;
}

StoredValues Database::load() {
    const Statement statement = prepare("SELECT key, value, checksum FROM property");
    StoredValues values;
    // Counting takes less time than growing.
    values.reserve(static_cast<std::size_t>(numberOf("SELECT count(*) FROM property")));
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
        const std::string_view key = text(statement.get(), 0);
        const std::string_view value = text(statement.get(), 1);
        if (sqlite3_column_int64(statement.get(), 2) != checksum(key, value)) {
            throw DamagedStore(path_ + ": is damaged: a stored value has a wrong checksum");
        }
        values.add(key, value);
    }
    if (result != SQLITE_DONE) fail("cannot be read");
    sqlite3_db_release_memory(database_.get());
    return values;
}

std::size_t Database::copyTo(const std::string& path) {
    const std::size_t rows = load().size();
    ::unlink(path.c_str());  // of an earlier attempt
    createIfMissing(path);   // with the mode of a store
    const Statement statement = prepare("VACUUM INTO ?1");
    bind(statement.get(), 1, path);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("cannot be copied to " + path);
    syncFile(path);
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
    sqlite3_stmt* const statement = (value ? replace_ : remove_).get();
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
