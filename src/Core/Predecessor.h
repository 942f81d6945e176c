// Ensures a single daemon per phone, and cleans up after one that was killed during a pass.
#pragma once

#include <memory>

#include "common/Descriptor.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

/// A file lock in the folder of downloaded provisioning files, held until destruction or the end of the process.
/// Creates the folder if it is missing.
class DaemonLock {
 public:
    enum class State { held, heldByAnother, unavailable };

    /// Logs a warning if the file cannot be created or locked (`unavailable`); the daemon then runs without a lock.
    DaemonLock();

    State state() const { return state_; }

 private:
    common::Descriptor file_;
    State state_;
};

/// Unlocks a screen that the predecessor left locked, and removes files that it left partly downloaded or decrypted.
/// Call while holding the lock, before any pass can run. Blocks for up to two property calls. Never throws.
void cleanUpAfterPredecessor(propertyapi::IPropertyApi& properties);

}  // namespace zav
