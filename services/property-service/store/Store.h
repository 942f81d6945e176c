// The store on disk: a database that looks after itself.
//
// It makes a backup of itself with the first write, an hour later and then once a day; two are kept. A damaged database
// is set aside and made anew from the last good backup. When its files are deleted or replaced while it is open, the
// next write, or the destructor, makes them anew. While the disk can only be read or has no room even to open the
// database, what was stored is there all the same; writes are refused until the disk takes them again.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "store/Database.h"
#include "store/IStore.h"

namespace propertyservice {

class Store final : public IStore {
 public:
    /// Throws StoreException when the file is in use by another process, newer than this version, or of something else.
    explicit Store(const std::string& path, std::chrono::milliseconds backupInterval = std::chrono::hours(24));
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ~Store() override;

    std::vector<Entry> load() override;
    void write(const std::vector<Entry>& entries) override;
    void rebuild(const std::vector<Entry>& entries) override;

    /// How often what was written has been synced to the disk.
    unsigned syncs() const { return database_ ? database_->syncs() : 0; }

 private:
    using Clock = std::chrono::steady_clock;

    void open();
    void restore(const std::string& damage);
    std::vector<Entry> readCopy() const;
    void commit(const std::vector<Entry>& entries);
    void renewIfDisplaced();
    std::chrono::milliseconds pauseUntilBackup() const;
    void planBackup();
    void backUp();

    const std::string path_;
    const std::chrono::milliseconds backupInterval_;
    std::unique_ptr<Database> database_;  // null: it cannot be written at present
    std::vector<Entry> entries_;          // what was read when it was opened, until `load` takes it
    Clock::time_point nextBackup_;
};

}  // namespace propertyservice
