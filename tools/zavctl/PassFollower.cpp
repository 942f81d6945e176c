#include "PassFollower.h"

#include <algorithm>

#include "Session.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

PassFollower::PassFollower(std::string source, std::chrono::milliseconds settleTime)
    : source_(std::move(source)), settleTime_(settleTime) {}

void PassFollower::connectionLost(const std::string& cause) {
    setLost("the connection to the broker was lost: " + cause);
}

void PassFollower::setLost(const std::string& reason) {
    {
        const common::LockGuard lock(mutex_);
        if (state_.lostReason.empty()) state_.lostReason = reason;
    }
    changed_.notifyAll();
}

void PassFollower::messageArrived(const std::string& topic, const std::string& content) {
    if (topic == propertyprotocol::statusTopic && content == propertyprotocol::offlineStatus)
        setLost("the property service went away");
    propertyprotocol::Change change;
    if (!propertyprotocol::readChange(content, change)) return;
    const common::LockGuard lock(mutex_);
    if (change.param == "State.Provisioning") {
        const bool isRequest = change.value.find("request") != std::string::npos;
        if (!isRequest) state_.isEarlierPassRunning = false;
        if (isRequest) {
            requested_ = requested_ || change.source == source_;
        } else if (requested_ && !(state_.result && state_.passBegan)) {
            state_.result = change.value;
            countsFrom_ = state_.passBegan ? Clock::now() : Clock::now() + settleTime_;
        }
    } else if (change.param == "State.Provisioning.LockUI" && change.value == "1" && requested_ &&
               !state_.isEarlierPassRunning && !state_.passBegan) {
        state_.passBegan = true;
        state_.result.reset();  // it was the result of an earlier pass
    }
    changed_.notifyAll();
}

void PassFollower::deliveryComplete(const std::string&) {}

void PassFollower::expectEarlierResult() {
    const common::LockGuard lock(mutex_);
    state_.isEarlierPassRunning = true;
}

std::optional<std::string> PassFollower::waitUntil(Clock::time_point until) {
    const common::LockGuard lock(mutex_);
    while (true) {
        const Clock::time_point now = Clock::now();
        if (state_.result && countsFrom_ <= now) return state_.result;
        if (until <= now || !state_.lostReason.empty()) return std::nullopt;
        changed_.waitUntil(mutex_, state_.result ? std::min(countsFrom_, until) : until);
    }
}

PassFollower::State PassFollower::state() const {
    const common::LockGuard lock(mutex_);
    return state_;
}

}  // namespace zavctl
