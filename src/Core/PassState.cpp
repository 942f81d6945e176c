#include "Core/PassState.h"

#include <mutex>

namespace zav {

namespace {

struct Version {
    std::mutex mutex;
    std::string text;  // guarded by mutex
};

Version& version() {
    static Version instance;
    return instance;
}

}  // namespace

std::atomic<int> lastHttpCode{0};

std::string currentProvisioningVersion() {
    const std::lock_guard<std::mutex> lock(version().mutex);
    return version().text;
}

void setCurrentProvisioningVersion(const std::string& text) {
    const std::lock_guard<std::mutex> lock(version().mutex);
    version().text = text;
}

}  // namespace zav
