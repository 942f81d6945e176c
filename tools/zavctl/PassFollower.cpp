#include "PassFollower.h"

#include <algorithm>

#include "Session.h"
#include "propertyprotocol/Change.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

PassFollower::PassFollower(std::string writer, std::chrono::milliseconds settling)
    : writer_(std::move(writer)), settling_(settling) {}

void PassFollower::connectionLost(const std::string& cause) { lose("the connection to the broker was lost: " + cause); }

void PassFollower::lose(const std::string& reason) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (lost_.empty()) lost_ = reason;
    }
    changed_.notify_all();
}

void PassFollower::messageArrived(const std::string& topic, const std::string& content) {
    if (topic == propertyprotocol::statusTopic && content == propertyprotocol::offlineStatus)
        lose("the property service went away");
    propertyprotocol::Change change;
    if (!propertyprotocol::readChange(content, change)) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (change.param == "State.Provisioning") {
        const bool isRequest = change.value.find("request") != std::string::npos;
        if (!isRequest) earlierPass_ = false;
        if (isRequest) {
            requested_ = requested_ || change.source == writer_;
        } else if (requested_ && !(result_ && passBegan_)) {
            result_ = change.value;
            counts_ = passBegan_ ? Clock::now() : Clock::now() + settling_;
        }
    } else if (change.param == "State.Provisioning.LockUI" && change.value == "1" && requested_ && !earlierPass_ &&
               !passBegan_) {
        passBegan_ = true;
        result_.reset();  // that was the pass before ours
    }
    changed_.notify_all();
}

void PassFollower::deliveryComplete(const std::string&) {}

void PassFollower::expectEarlierResult() {
    const std::lock_guard<std::mutex> lock(mutex_);
    earlierPass_ = true;
}

std::optional<std::string> PassFollower::waitUntil(Clock::time_point until) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        const Clock::time_point now = Clock::now();
        if (result_ && counts_ <= now) return result_;
        if (until <= now || !lost_.empty()) return std::nullopt;
        changed_.wait_until(lock, result_ ? std::min(counts_, until) : until);
    }
}

std::optional<std::string> PassFollower::heldBack() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return result_;
}

bool PassFollower::passBegan() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return passBegan_;
}

bool PassFollower::isBehindEarlierPass() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return earlierPass_;
}

std::string PassFollower::lost() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
}

}  // namespace zavctl
