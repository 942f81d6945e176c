// While one lives, property calls of its thread outlast a restart of the property service: for a pass, whose settings
// must not be lost to a crash that is over in a second or two.
//
// A call waits up to 5 s after the service went (or the connection to the broker broke), and has its full time-out once
// it is back; one that was in flight is retried, a set only if reading back shows that it was not carried out. Calls of
// other threads fail at once as ever. Nestable; destroyed on the thread that made it.
#pragma once

namespace propertyapi {

class PatientCalls {
 public:
    PatientCalls();
    PatientCalls(const PatientCalls&) = delete;
    PatientCalls& operator=(const PatientCalls&) = delete;
    ~PatientCalls();

    /// Whether one lives on the calling thread.
    static bool onThisThread();
};

}  // namespace propertyapi
