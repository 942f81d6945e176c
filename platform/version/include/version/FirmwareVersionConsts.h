// The kinds of versions that IFirmwareVersionFactory creates, and the running version. One object per process. Any
// thread.
#pragma once

#include <string>

#include "common/ThreadSafety.h"

namespace version {

class FirmwareVersionConsts {
 public:
    static FirmwareVersionConsts& getInstance();

    /// The kind of a version that is created from its text.
    const std::string& offeredVersion() const { return offeredVersion_; }
    /// The kind of the running version; its text is that of the last setRunningVersion.
    const std::string& currentVersion() const { return currentVersion_; }

    void setRunningVersion(const std::string& text);
    std::string runningVersion() const;

 private:
    FirmwareVersionConsts() = default;

    const std::string offeredVersion_ = "offered";
    const std::string currentVersion_ = "current";
    mutable common::Mutex mutex_;
    std::string runningVersion_ GUARDED_BY(mutex_);
};

}  // namespace version
