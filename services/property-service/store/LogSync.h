// Syncs a file to the disk soon after a write, on a background thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "common/Descriptor.h"

namespace propertyservice {

class LogSync {
 public:
    /// Throws std::system_error if the file cannot be opened.
    LogSync(const std::string& path, std::chrono::milliseconds delay);
    LogSync(const LogSync&) = delete;
    LogSync& operator=(const LogSync&) = delete;
    /// Stops the thread without a last sync.
    ~LogSync();

    /// Call after each write: schedules a sync after `delay`. Does not block on the disk.
    void written();

    /// How often the file was synced.
    unsigned syncs() const;

 private:
    void run();

    const std::string path_;
    const common::Descriptor file_;
    const std::chrono::milliseconds delay_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool dirty_ = false;     // guarded by mutex_
    bool stopping_ = false;  // guarded by mutex_
    unsigned syncs_ = 0;     // guarded by mutex_

    std::thread thread_;  // last: it uses everything above
};

}  // namespace propertyservice
