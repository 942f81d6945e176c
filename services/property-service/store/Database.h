// The settings in one SQLite file with a write-ahead log, open for this process alone.
//
// A commit hands the data to the kernel, so it survives `kill -9`. A thread of the database's own syncs the log to the
// disk at most half a second later, so that a power cut costs less than a second and no caller ever waits for the
// disk's cache. When the log has grown to 4 MiB, the commit that finds it so moves it into the database file. Each
// row carries a checksum, as a page that flash memory has changed would else pass for a setting.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/IStore.h"
#include "store/LogSync.h"
#include "store/StoreFiles.h"

struct sqlite3;
struct sqlite3_stmt;

namespace propertyservice {

/// The disk is full or can only be read. That may change.
class UnwritableStore : public StoreException {
 public:
    using StoreException::StoreException;
};

class Database {
 public:
    using Entry = IStore::Entry;

    /// The format that this version writes; 1 had no checksums. A file with an older one is migrated when it is opened,
    /// in one transaction. One with a greater one is refused and stays as it is.
    static constexpr int version = 2;

    /// Opens the file, or creates it (mode 0600) and its folder, and checks its structure. Throws DamagedStore,
    /// UnwritableStore, and StoreException for a file in use by another process, newer than this version, or of
    /// something else.
    explicit Database(const std::string& path);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    /// Moves the log into the file and syncs both, unless the file is no longer at its path.
    ~Database();

    /// Throws DamagedStore when a row is not what was written.
    std::vector<Entry> load();
    void write(const std::vector<Entry>& entries);

    /// Writes a copy to the file, which must be empty, after it has checked every row. Returns the number of rows.
    std::size_t copyTo(const std::string& path);

    /// Whether the file and its log are still the ones at their paths. Costs two path look-ups for every write.
    bool isInPlace() const { return fileState() == FileMark::State::inPlace && logState() == FileMark::State::inPlace; }
    FileMark::State fileState() const { return fileMark_->state(); }
    FileMark::State logState() const { return logMark_->state(); }

    /// How often what was written has been synced to the disk.
    unsigned syncs() const { return logSync_->syncs(); }

 private:
    struct CloseDatabase {
        void operator()(sqlite3* database) const;
    };
    struct FinalizeStatement {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

    void open();
    void prepareFormat();
    void checkStructure();
    Statement prepare(const char* sql, unsigned flags = 0);
    int numberOf(const char* pragma);
    void execute(const char* sql);
    void put(const Entry& entry);
    [[noreturn]] void fail(const std::string& what) const;

    const std::string path_;
    std::unique_ptr<sqlite3, CloseDatabase> database_;
    Statement upsert_;
    Statement remove_;
    std::unique_ptr<LogSync> logSync_;
    std::optional<FileMark> fileMark_;
    std::optional<FileMark> logMark_;
};

}  // namespace propertyservice
