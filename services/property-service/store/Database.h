// The settings in one SQLite file with a write-ahead log, locked against other processes.
//
// A commit hands the data to the kernel, so it survives `kill -9`. A background thread syncs the log to the disk at
// most half a second later, so that a power cut costs less than a second and callers do not wait for the disk. The
// commit that grows the log to 4 MiB also moves it into the database file. Each row has a checksum, which detects bit
// flips in the flash memory.
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

/// The disk is full or read-only, which may change.
class UnwritableStore : public StoreException {
 public:
    using StoreException::StoreException;
};

class Database {
 public:
    using Entry = IStore::Entry;

    /// "ZAVp" in the file's header distinguishes a property store from any other database.
    static constexpr int applicationId = 0x5a415670;

    /// The format that this version writes; 1 had no checksums. Opening a file migrates an older format in one
    /// transaction. A file with a newer format is refused and left unchanged.
    static constexpr int version = 2;

    /// Opens the file, or creates it (mode 0600) and its folder, and checks its structure. Throws DamagedStore,
    /// UnwritableStore, and StoreException if another process uses the file, a newer version wrote it, or it is not a
    /// property store.
    explicit Database(const std::string& path);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    /// Moves the log into the file and syncs both, unless another file or none is at the path.
    ~Database();

    /// Throws DamagedStore if the checksum of a row is wrong.
    StoredValues load();
    void write(const std::vector<Entry>& entries);

    /// Checks every row, then replaces the file by a synced copy (mode 0600). Returns the number of rows.
    std::size_t copyTo(const std::string& path);

    /// The files that are open, to detect that they were deleted or replaced.
    const FileId& file() const { return file_; }
    const FileId& log() const { return log_; }

    /// The number of commits that opening the file has lost in a damaged log. 0 if nothing of this log stands behind
    /// the damage, as after a kill.
    std::size_t lostCommits() const { return lostCommits_; }

    /// How often the log was synced to the disk.
    unsigned syncs() const { return logSync_->syncs(); }

 private:
    struct Close {
        void operator()(sqlite3* database) const;
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Close>;

    void open();
    void prepareFormat();
    void checkStructure();
    std::size_t countLostCommits();
    Statement prepare(const char* sql, unsigned flags = 0);
    int numberOf(const char* query);
    void execute(const char* sql);
    void put(const Entry& entry);
    [[noreturn]] void fail(const std::string& what) const;

    const std::string path_;
    std::unique_ptr<sqlite3, Close> database_;
    Statement replace_;
    Statement remove_;
    std::size_t lostCommits_ = 0;
    std::unique_ptr<LogSync> logSync_;
    FileId file_;
    FileId log_;
};

}  // namespace propertyservice
