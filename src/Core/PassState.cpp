#include "Core/PassState.h"

#include "common/ThreadSafety.h"

namespace zav {

namespace {

struct Version {
    common::Mutex mutex;
    std::string text GUARDED_BY(mutex);
};

Version& version() {
    static Version instance;
    return instance;
}

}  // namespace

std::atomic<int> lastHttpCode{0};

std::string currentProvisioningVersion() {
    const common::LockGuard lock(version().mutex);
    return version().text;
}

void setCurrentProvisioningVersion(const std::string& text) {
    const common::LockGuard lock(version().mutex);
    version().text = text;
}

}  // namespace zav
