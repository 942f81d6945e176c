// The kinds of versions that the factory makes, and the version that is running. One object a process; any thread.
#pragma once

#include <mutex>
#include <string>

namespace version {

class FirmwareVersionConsts {
 public:
    static FirmwareVersionConsts& getInstance();

    /// A version given by its text.
    const std::string& offeredVersion() const { return offeredVersion_; }
    /// The version that is running; its text is what setRunningVersion was given last.
    const std::string& currentVersion() const { return currentVersion_; }

    void setRunningVersion(const std::string& text);
    std::string runningVersion() const;

 private:
    FirmwareVersionConsts() = default;

    const std::string offeredVersion_ = "offered";
    const std::string currentVersion_ = "current";
    mutable std::mutex mutex_;
    std::string runningVersion_;  // guarded by mutex_
};

}  // namespace version
