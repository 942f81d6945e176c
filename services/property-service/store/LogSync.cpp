#include "store/LogSync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "debug/Debug.h"

namespace propertyservice {

LogSync::LogSync(const std::string& path, std::chrono::milliseconds delay)
    : path_(path), file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), delay_(delay) {
    if (file_.get() < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    thread_ = std::thread([this] { run(); });
}

LogSync::~LogSync() {
    {
        const common::LockGuard lock(mutex_);
        stopping_ = true;
    }
    changed_.notifyAll();
    thread_.join();
}

void LogSync::written() {
    {
        const common::LockGuard lock(mutex_);
        if (dirty_) return;  // a sync is already scheduled
        dirty_ = true;
    }
    changed_.notifyAll();
}

unsigned LogSync::syncs() const {
    const common::LockGuard lock(mutex_);
    return syncs_;
}

void LogSync::run() {
    bool failed = false;
    common::UniqueLock lock(mutex_);
    while (true) {
        changed_.wait(mutex_, [this]() REQUIRES(mutex_) { return dirty_ || stopping_; });
        if (changed_.waitFor(mutex_, delay_, [this]() REQUIRES(mutex_) { return stopping_; })) return;
        dirty_ = false;  // a write during the sync needs another one
        lock.unlock();
        const bool synced = ::fdatasync(file_.get()) == 0;
        const std::error_code error(errno, std::generic_category());
        if (!synced && !failed) {
            dbg::Debug::error() << "Cannot sync " << path_ << " to the disk: " << error.message()
                                << "; a power cut may cost recent settings" << std::endl;
        }
        if (synced && failed) dbg::Debug::info() << path_ << " is synced to the disk again" << std::endl;
        failed = !synced;
        lock.lock();
        if (synced) {
            ++syncs_;
        } else {
            dirty_ = true;
        }
        changed_.notifyAll();
    }
}

}  // namespace propertyservice
