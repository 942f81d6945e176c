#include "BackOff.h"

#include <algorithm>

namespace ipc {

BackOff::Duration BackOff::next(Duration held, Loss loss) {
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

}  // namespace ipc
