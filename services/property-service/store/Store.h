// The store on disk: a database with backups and automatic recovery.
//
// It makes a backup at the first write, an hour later and then once a day, and keeps two. A damaged database is moved
// aside and restored from the newest good backup. If its files are deleted or replaced while it is open, the next write
// or the destructor rewrites them. If the disk is read-only or too full to open the database, the stored values can
// still be loaded; writes are refused until the disk is writable.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "store/Database.h"
#include "store/IStore.h"

namespace propertyservice {

class Store final : public IStore {
 public:
    /// Throws StoreException if another process uses the file, a newer version wrote it, or it is not a property store.
    explicit Store(const std::string& path, std::chrono::milliseconds backupInterval = std::chrono::hours(24));
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ~Store() override;

    StoredValues load() override;
    void write(const std::vector<Entry>& entries) override;
    void rebuild(const std::vector<Entry>& entries) override;

    /// How often the log was synced to the disk.
    unsigned syncs() const { return database_ ? database_->syncs() : 0; }

 private:
    using Clock = std::chrono::steady_clock;

    void open();
    void restore(const std::string& damage);
    StoredValues readCopy() const;
    void commit(const std::vector<Entry>& entries);
    void rewriteIfDisplaced();
    std::chrono::milliseconds backupDelay() const;
    void scheduleBackup();
    void backUp();

    const std::string path_;
    const std::chrono::milliseconds backupInterval_;
    std::unique_ptr<Database> database_;  // null: the disk is not writable
    StoredValues loaded_;                 // read by `open`, until `load` returns it
    Clock::time_point nextBackup_;
};

}  // namespace propertyservice
