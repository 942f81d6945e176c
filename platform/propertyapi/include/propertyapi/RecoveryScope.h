// While an object of this class exists, property calls on its thread survive a restart of the property service: a crash
// of a second or two must not lose the settings of a pass.
//
// A call waits up to 5 s from the moment when the service went offline or the connection to the broker was lost, and
// has its full time-out once the service is back. A call in flight is retried; a set only if reading the value back
// shows that it was not executed. Calls on other threads still fail at once. Nestable; destroy it on the thread that
// made it.
#pragma once

namespace propertyapi {

class RecoveryScope {
 public:
    RecoveryScope() { ++nested_; }
    RecoveryScope(const RecoveryScope&) = delete;
    RecoveryScope& operator=(const RecoveryScope&) = delete;
    ~RecoveryScope() { --nested_; }

    /// Whether such an object exists on the calling thread.
    static bool onThisThread() { return nested_ > 0; }

 private:
    inline static thread_local unsigned nested_ = 0;
};

}  // namespace propertyapi
