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
        const std::lock_guard<std::mutex> lock(mutex_);
        if (lostReason_.empty()) lostReason_ = reason;
    }
    changed_.notify_all();
}

void PassFollower::messageArrived(const std::string& topic, const std::string& content) {
    if (topic == propertyprotocol::statusTopic && content == propertyprotocol::offlineStatus)
        setLost("the property service went away");
    propertyprotocol::Change change;
    if (!propertyprotocol::readChange(content, change)) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (change.param == "State.Provisioning") {
        const bool isRequest = change.value.find("request") != std::string::npos;
        if (!isRequest) earlierPassRuns_ = false;
        if (isRequest) {
            requested_ = requested_ || change.source == source_;
        } else if (requested_ && !(result_ && passBegan_)) {
            result_ = change.value;
            countsFrom_ = passBegan_ ? Clock::now() : Clock::now() + settleTime_;
        }
    } else if (change.param == "State.Provisioning.LockUI" && change.value == "1" && requested_ && !earlierPassRuns_ &&
               !passBegan_) {
        passBegan_ = true;
        result_.reset();  // it was the result of an earlier pass
    }
    changed_.notify_all();
}

void PassFollower::deliveryComplete(const std::string&) {}

void PassFollower::expectEarlierResult() {
    const std::lock_guard<std::mutex> lock(mutex_);
    earlierPassRuns_ = true;
}

std::optional<std::string> PassFollower::waitUntil(Clock::time_point until) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        const Clock::time_point now = Clock::now();
        if (result_ && countsFrom_ <= now) return result_;
        if (until <= now || !lostReason_.empty()) return std::nullopt;
        changed_.wait_until(lock, result_ ? std::min(countsFrom_, until) : until);
    }
}

std::optional<std::string> PassFollower::unconfirmedResult() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return result_;
}

bool PassFollower::passBegan() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return passBegan_;
}

bool PassFollower::isEarlierPassRunning() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return earlierPassRuns_;
}

std::string PassFollower::lostReason() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lostReason_;
}

}  // namespace zavctl
