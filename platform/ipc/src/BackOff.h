// How long a connection that was lost waits before the next attempt. It has no clock: the caller says how long the last
// connection held.
#pragma once

#include <chrono>

namespace ipc {

class BackOff {
 public:
    using Duration = std::chrono::milliseconds;

    enum class Loss {
        plain,
        suspected,  // the broker closed it without a reason: perhaps a takeover
        takeover,   // another client has connected under our name
    };

    static constexpr Duration firstPause{100};
    static constexpr Duration longestPause{5000};
    /// A connection that held this long starts the pauses of plain losses anew.
    static constexpr Duration settled{1000};

    /// Two clients of one name take the session from each other, and each connection holds for as long as the other one
    /// pauses. So these pauses start anew only once a connection has held for longer than any of them.
    static constexpr Duration firstTakeoverPause{1000};
    static constexpr Duration longestTakeoverPause{30000};
    static constexpr Duration undisputed{60000};

    /// The pause after a connection that was ready for `held`, 0 if it never was.
    Duration next(Duration held, Loss loss);

 private:
    Duration pause_ = firstPause;
    Duration takeoverPause_{0};
};

}  // namespace ipc
