#include "Subscriptions.h"

#include <mqtt_protocol.h>

#include <algorithm>

#include "ipc/IPCException.h"

namespace ipc {

std::uint32_t Subscriptions::add(const std::string& filter, int qualityOfService, int retained, bool isNamed) {
    const auto found =
        std::find_if(all_.begin(), all_.end(), [&filter](const auto& each) { return each.second.filter == filter; });
    if (found == all_.end()) {
        all_.emplace(next_, Subscription{filter, qualityOfService, retained, isNamed, 1, Answer::pending, {}});
        return next_++;
    }
    Subscription& shared = found->second;
    ++shared.users;
    shared.qualityOfService = std::max(shared.qualityOfService, qualityOfService);
    shared.isNamed = shared.isNamed || isNamed;
    shared.retained = MQTT_SUB_OPT_SEND_RETAIN_ALWAYS;
    shared.answer = Answer::pending;
    return found->first;
}

std::optional<std::string> Subscriptions::remove(std::uint32_t identifier) {
    const auto found = all_.find(identifier);
    if (found == all_.end() || --found->second.users > 0) return std::nullopt;
    std::string filter = std::move(found->second.filter);
    all_.erase(found);
    return filter;
}

const Subscriptions::Subscription* Subscriptions::find(std::uint32_t identifier) const {
    const auto found = all_.find(identifier);
    return found == all_.end() ? nullptr : &found->second;
}

void Subscriptions::startConnection() {
    unanswered_.clear();
    for (auto& [identifier, subscription] : all_) subscription.answer = Answer::pending;
}

void Subscriptions::sent(std::uint32_t identifier, int message) { unanswered_[message] = identifier; }

void Subscriptions::refuse(std::uint32_t identifier, const std::string& reason) {
    const auto found = all_.find(identifier);
    if (found == all_.end()) return;
    found->second.answer = reason.empty() ? Answer::granted : Answer::refused;
    found->second.refusal = reason;
}

const Subscriptions::Subscription* Subscriptions::answered(int message, const std::string& refusal) {
    const auto asked = unanswered_.find(message);
    if (asked == unanswered_.end()) return nullptr;
    const std::uint32_t identifier = asked->second;
    unanswered_.erase(asked);
    refuse(identifier, refusal);
    return find(identifier);
}

void Subscriptions::requireGranted() const {
    for (const auto& [identifier, subscription] : all_) requireGranted(subscription);
}

void Subscriptions::requireGranted(const Subscription& subscription) {
    if (subscription.answer != Answer::refused) return;
    throw IPCException("The broker refuses the subscription \"" + subscription.filter + "\": " + subscription.refusal);
}

}  // namespace ipc
