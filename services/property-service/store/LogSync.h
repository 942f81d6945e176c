// Syncs a file to the disk soon after a write, on a background thread.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "common/Descriptor.h"
#include "common/ThreadSafety.h"

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

    mutable common::Mutex mutex_;
    common::ConditionVariable changed_;
    bool dirty_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;
    unsigned syncs_ GUARDED_BY(mutex_) = 0;

    std::thread thread_;  // last: it uses everything above
};

}  // namespace propertyservice
