// The pause before the next connection attempt. It has no clock: the caller passes how long the last connection held.
#pragma once

#include <algorithm>
#include <chrono>

namespace ipc {

class BackOff {
 public:
    using Duration = std::chrono::milliseconds;

    enum class Loss {
        plain,
        suspected,  // the broker closed the connection without a reason: perhaps a takeover
        takeover,   // another client has connected under our name
    };

    static constexpr Duration firstPause{100};
    static constexpr Duration longestPause{5000};
    /// A connection that held this long resets the pause after plain losses.
    static constexpr Duration resetAfter{1000};

    /// Two clients with the same name take the session from each other, so each connection holds for as long as the
    /// other client pauses. Therefore only a connection that held for longer than any pause resets this one.
    static constexpr Duration firstTakeoverPause{1000};
    static constexpr Duration longestTakeoverPause{30000};
    static constexpr Duration takeoverResetAfter{60000};

    /// The pause after a connection that was ready for `held`, 0 if it never was.
    Duration next(Duration held, Loss loss) {
        if (held >= resetAfter) pause_ = firstPause;
        if (held >= takeoverResetAfter) takeoverPause_ = Duration{0};
        if (loss == Loss::plain) {
            const Duration pause = pause_;
            pause_ = std::min(2 * pause_, longestPause);
            return pause;
        }
        const Duration pause = std::max(takeoverPause_, loss == Loss::takeover ? firstTakeoverPause : firstPause);
        takeoverPause_ = std::min(2 * pause, longestTakeoverPause);
        return pause;
    }

 private:
    Duration pause_ = firstPause;
    Duration takeoverPause_{0};
};

}  // namespace ipc
