#include "BackOff.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using ipc::BackOff;
using Loss = BackOff::Loss;
using namespace std::chrono_literals;
using Pauses = std::vector<BackOff::Duration>;

Pauses pauses(BackOff& backOff, std::size_t count, BackOff::Duration held, Loss loss) {
    Pauses all;
    while (all.size() < count) all.push_back(backOff.next(held, loss));
    return all;
}

TEST(BackOff, DoublesFromATenthOfASecondToFiveSeconds) {
    BackOff backOff;
    EXPECT_EQ(pauses(backOff, 8, 0ms, Loss::plain),
              (Pauses{100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 5000ms, 5000ms}));
}

TEST(BackOff, ResetsAfterAConnectionThatHeldForASecond) {
    BackOff backOff;
    pauses(backOff, 8, 0ms, Loss::plain);
    EXPECT_EQ(backOff.next(999ms, Loss::plain), 5000ms);
    EXPECT_EQ(pauses(backOff, 2, 1000ms, Loss::plain), (Pauses{100ms, 100ms}));
}

TEST(BackOff, DoublesFromOneSecondToThirtyAfterTakeovers) {
    BackOff backOff;
    EXPECT_EQ(pauses(backOff, 7, 0ms, Loss::takeover), (Pauses{1s, 2s, 4s, 8s, 16s, 30s, 30s}));
}

TEST(BackOff, DoublesFromATenthOfASecondToThirtyAfterSuspectedTakeovers) {
    BackOff backOff;
    EXPECT_EQ(pauses(backOff, 11, 2000ms, Loss::suspected),
              (Pauses{100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 6400ms, 12800ms, 25600ms, 30s, 30s}));
    EXPECT_EQ(backOff.next(60s, Loss::suspected), 100ms);
    EXPECT_EQ(backOff.next(2000ms, Loss::takeover), 1s);
    EXPECT_EQ(backOff.next(2000ms, Loss::suspected), 2s);
}

TEST(BackOff, ResetsTheTakeoverPauseAfterAMinute) {
    BackOff backOff;
    EXPECT_EQ(pauses(backOff, 6, 59999ms, Loss::takeover), (Pauses{1s, 2s, 4s, 8s, 16s, 30s}));
    EXPECT_EQ(backOff.next(60000ms, Loss::takeover), 1s);
    EXPECT_EQ(backOff.next(1000ms, Loss::takeover), 2s);
}

TEST(BackOff, KeepsTheTakeoverPauseAfterOtherLosses) {
    BackOff backOff;
    pauses(backOff, 3, 2000ms, Loss::takeover);
    EXPECT_EQ(pauses(backOff, 2, 2000ms, Loss::plain), (Pauses{100ms, 100ms})) << "these losses were not takeovers";
    EXPECT_EQ(backOff.next(2000ms, Loss::takeover), 8s);
}

TEST(BackOff, TwoClientsOfOneNameTakeOverTwiceAMinute) {
    // Each connection holds for as long as the other client pauses.
    BackOff clients[2];
    BackOff::Duration held = 0ms;
    BackOff::Duration time = 0ms;
    int takeovers = 0;
    for (int loser = 0; time < 10min; loser = 1 - loser, ++takeovers) {
        held = clients[loser].next(held, Loss::takeover);
        time += held;
    }
    EXPECT_LE(takeovers, 10 + 2 * 10);
}

}  // namespace
