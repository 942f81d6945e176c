#include "Outbox.h"

#include <algorithm>
#include <utility>

namespace ipc {

Outbox::Entry& Outbox::add(const Message& message, bool retain) {
    entries_.push_back({std::string(message.topic), std::string(message.payload), message.qualityOfService, retain,
                        std::string(message.responseTopic), std::string(message.correlationData), Entry::unsent});
    bytes_ += sizeOf(message);
    return entries_.back();
}

std::optional<std::string> Outbox::settle(int identifier) {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [identifier](const Entry& each) { return each.identifier == identifier; });
    if (found == entries_.end()) return std::nullopt;
    bytes_ -= sizeOf(*found);
    std::string topic = std::move(found->topic);
    entries_.erase(found);
    return topic;
}

void Outbox::dropTopic(std::string_view topic) {
    dropIf([topic](const Entry& each) { return each.topic == topic; });
}

bool Outbox::dropRefused() {
    return dropIf([](const Entry& each) { return each.identifier == Entry::refused; });
}

template <typename Condition>
bool Outbox::dropIf(Condition condition) {
    const std::size_t before = entries_.size();
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), condition), entries_.end());
    bytes_ = 0;
    for (const Entry& each : entries_) bytes_ += sizeOf(each);
    return entries_.size() != before;
}

void Outbox::startConnection() {
    for (Entry& each : entries_) each.identifier = Entry::unsent;
    noteAllSent();
}

void Outbox::noteUnsent(std::size_t bytes) {
    ++unsent_;
    unsentBytes_ += bytes;
}

void Outbox::noteAllSent() {
    unsent_ = 0;
    unsentBytes_ = 0;
}

Congestion Outbox::congestion() const {
    if (unsent_ >= maxWaiting / 2 || unsentBytes_ >= congestionBytes) return Congestion::unsent;
    const std::size_t most = std::min(maxWaiting / 2, unacknowledgedLimit_);
    if (entries_.size() >= most || bytes_ >= congestionBytes) return Congestion::unacknowledged;
    return Congestion::none;
}

}  // namespace ipc
