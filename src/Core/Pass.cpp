#include "Core/Pass.h"

#include <utility>

namespace zav {

namespace {

thread_local Pass* passOfThisThread = nullptr;

}  // namespace

Pass::Pass(std::shared_ptr<Usage> usage, unsigned depth, std::shared_ptr<common::StopSignal> stop)
    : usage_(std::move(usage)), depth_(depth), stop_(std::move(stop)), outer_(passOfThisThread) {
    passOfThisThread = this;
}

Pass::~Pass() { passOfThisThread = outer_; }

Pass* Pass::ofThisThread() { return passOfThisThread; }

Pass& Pass::current() {
    if (passOfThisThread == nullptr) throw std::logic_error("No provisioning pass runs on this thread");
    return *passOfThisThread;
}

bool Pass::useFile() {
    if (usage_->files >= maximumFiles) return false;
    ++usage_->files;
    return true;
}

void Pass::throwIfOverdue() const {
    if (isOverdue()) throw ShuttingDownException();
}

}  // namespace zav
