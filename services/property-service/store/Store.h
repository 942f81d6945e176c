// The store on disk: one SQLite file with a write-ahead log, for this process alone.
//
// A commit hands the data to the kernel, so it survives `kill -9`. A thread of the store's own syncs the log to the
// disk at most half a second later, so that a power cut costs less than a second and no caller ever waits for the
// disk's cache. When the log has grown to 4 MiB, the commit that finds it so moves it into the database file.
#pragma once

#include <memory>
#include <string>

#include "store/IStore.h"
#include "store/LogSync.h"

struct sqlite3;
struct sqlite3_stmt;

namespace propertyservice {

class Store final : public IStore {
 public:
    /// The schema that this version writes. A file with a greater one is refused and stays as it is.
    static constexpr int version = 1;

    /// Opens the file, or creates it (mode 0600) and its folder. Throws StoreException when it is in use by another
    /// process, newer than this version, no store of ours, damaged, or not writable.
    explicit Store(const std::string& path);
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    /// Moves the log into the file and syncs both.
    ~Store() override;

    std::vector<Entry> load() override;
    void write(const std::vector<Entry>& entries) override;

    /// How often what was written has been synced to the disk.
    unsigned syncs() const { return logSync_->syncs(); }

 private:
    struct CloseDatabase {
        void operator()(sqlite3* database) const;
    };
    struct FinalizeStatement {
        void operator()(sqlite3_stmt* statement) const;
    };

    void refuseForeignFile() const;
    void open();
    void prepareSchema();
    int numberOf(const char* pragma);
    void execute(const char* sql);
    void put(const Entry& entry);
    [[noreturn]] void fail(const std::string& what) const;

    const std::string path_;
    std::unique_ptr<sqlite3, CloseDatabase> database_;
    std::unique_ptr<sqlite3_stmt, FinalizeStatement> upsert_;
    std::unique_ptr<LogSync> logSync_;
};

}  // namespace propertyservice
