#include "Core/Pass.h"

#include <utility>

#include "common/ThreadSafety.h"

namespace zav {

namespace {

thread_local Pass* passOfThisThread = nullptr;

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

Pass::Pass(Pass* outer, std::shared_ptr<common::StopSignal> stop, ProgressPublisher* progress)
    : outer_(outer), depth_(outer == nullptr ? 1 : outer->depth_ + 1), stop_(std::move(stop)), progress_(progress) {
    passOfThisThread = this;
}

Pass::~Pass() { passOfThisThread = nullptr; }

Pass* Pass::ofThisThread() { return passOfThisThread; }

Pass& Pass::current() {
    if (passOfThisThread == nullptr) throw std::logic_error("No provisioning pass runs on this thread");
    return *passOfThisThread;
}

bool Pass::countNestedPass() { return depth_ < maximumDepth && ++usage().nestedPasses <= maximumNestedPasses; }

void Pass::throwIfOverdue() const {
    if (isOverdue()) throw ShuttingDownException();
}

}  // namespace zav
