// One daemon a phone, and nothing left behind by the one before it, which may have been killed in the middle of a pass.
#pragma once

#include <memory>

#include "common/Descriptor.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

/// Held by the one daemon that runs, until it is destroyed or the process dies. A lock on a file in the folder of
/// downloaded provisioning files, which is made if it is missing.
class DaemonLock {
 public:
    enum class State { held, heldByAnother, unavailable };

    /// Unavailable: the file cannot be made or locked, which is logged; the daemon goes on without.
    DaemonLock();

    State state() const { return state_; }

 private:
    common::Descriptor file_;
    State state_;
};

/// For the holder of the lock, when no pass can run yet: unlocks a screen that a predecessor left locked, with a
/// warning, and removes files that it had downloaded half. Blocks for two property calls; never throws, and logs
/// nothing when the property cannot be read.
void cleanUpAfterPredecessor(propertyapi::IPropertyApi& properties);

}  // namespace zav
