#include "PassFollower.h"

#include <gtest/gtest.h>

#include "Phone.h"

namespace zavctl {
namespace {

using std::chrono::milliseconds;
using Clock = PassFollower::Clock;

const char state[] = "State.Provisioning";
const char lock[] = "State.Provisioning.LockUI";

class Follower : public testing::Test {
 protected:
    void change(const std::string& key, const std::string& value, const std::string& source = "") {
        follower.messageArrived("t", changeText(key, value, source));
    }
    std::optional<std::string> now() { return follower.waitUntil(Clock::now()); }

    PassFollower follower{"zavctl", std::chrono::hours(1)};
};

TEST_F(Follower, FollowsAPassFromRequestToResult) {
    EXPECT_FALSE(now());
    change(state, "request", "zavctl");
    EXPECT_FALSE(follower.state().passBegan);
    change(lock, "1");
    EXPECT_TRUE(follower.state().passBegan);
    change(lock, "0");
    change("State.Provisioning.HttpErrorCode", "200");
    EXPECT_FALSE(now());
    change(state, "success");
    EXPECT_EQ(now(), "success");
}

TEST_F(Follower, IgnoresAResultBeforeTheRequest) {
    change(lock, "1");
    change(state, "success");
    change(state, "request", "zavctl");
    EXPECT_FALSE(now());
    EXPECT_FALSE(follower.state().result);
    EXPECT_FALSE(follower.state().passBegan);
}

TEST_F(Follower, IgnoresRequestsOfOtherClients) {
    change(state, "request", "timer");
    change(lock, "1");
    change(state, "fail");
    EXPECT_FALSE(now());
    EXPECT_FALSE(follower.state().result);
}

TEST_F(Follower, IgnoresTheResultOfAnEarlierPass) {
    change(state, "request", "zavctl");
    change(lock, "0");
    change(state, "fail");
    EXPECT_FALSE(now());
    EXPECT_EQ(follower.state().result, "fail");
    change(lock, "1");
    EXPECT_FALSE(follower.state().result);
    change(lock, "0");
    change(state, "success");
    EXPECT_EQ(now(), "success");
}

TEST_F(Follower, IgnoresARedirectOfAnEarlierPass) {
    follower.expectEarlierResult();
    change(state, "request", "zavctl");
    change(lock, "1");  // the pass of the redirect
    change(lock, "0");
    EXPECT_FALSE(follower.state().passBegan);
    change(lock, "0");
    change(state, "fail");
    EXPECT_FALSE(now());
    change(lock, "1");
    EXPECT_TRUE(follower.state().passBegan);
    change(lock, "0");
    change(state, "success");
    EXPECT_EQ(now(), "success");
}

TEST_F(Follower, OnlyTheFirstResultCounts) {
    change(state, "request", "zavctl");
    change(lock, "1");
    change(state, "partSuccess");
    change(state, "request", "timer");
    change(lock, "1");
    change(state, "fail");
    EXPECT_EQ(now(), "partSuccess");
}

TEST(FollowerWithShortSettleTime, AcceptsAResultWithoutAStartAfterTheSettleTime) {
    PassFollower follower("zavctl", milliseconds(1));
    follower.messageArrived("t", changeText(state, "request-check-sync", "zavctl"));
    follower.messageArrived("t", changeText(state, "success", ""));
    EXPECT_EQ(follower.waitUntil(Clock::now() + std::chrono::hours(1)), "success");
    EXPECT_FALSE(follower.state().passBegan);
}

TEST_F(Follower, StopsWaitingWhenTheBrokerOrServiceGoesAway) {
    const auto late = Clock::now() + std::chrono::seconds(20);
    follower.messageArrived("prop-service/status", "online");
    follower.messageArrived("another/status", "offline");
    EXPECT_EQ(follower.state().lostReason, "");
    follower.messageArrived("prop-service/status", "offline");
    EXPECT_FALSE(follower.waitUntil(late));
    EXPECT_EQ(follower.state().lostReason, "the property service went away");
    PassFollower other("zavctl", std::chrono::hours(1));
    other.connectionLost("x");
    EXPECT_FALSE(other.waitUntil(late));
    EXPECT_EQ(other.state().lostReason, "the connection to the broker was lost: x");
    EXPECT_LT(Clock::now(), late) << "waited until the deadline";
}

TEST_F(Follower, KeepsAResultReceivedBeforeTheConnectionWasLost) {
    change(state, "request", "zavctl");
    change(lock, "1");
    change(state, "success");
    follower.connectionLost("x");
    EXPECT_EQ(now(), "success");
}

TEST_F(Follower, KnowsWhetherAnEarlierPassIsRunning) {
    EXPECT_FALSE(follower.state().isEarlierPassRunning);
    follower.expectEarlierResult();
    EXPECT_TRUE(follower.state().isEarlierPassRunning);
    change(state, "request", "zavctl");
    EXPECT_TRUE(follower.state().isEarlierPassRunning);
    change(state, "fail");
    EXPECT_FALSE(follower.state().isEarlierPassRunning);
}

TEST_F(Follower, IgnoresInvalidChanges) {
    change(state, "request", "zavctl");
    for (const char* content : {"", "x", "[]", "{}", R"({"param":5,"value":"success"})"}) {
        follower.messageArrived("t", content);
    }
    EXPECT_FALSE(follower.state().result);
}

}  // namespace
}  // namespace zavctl
