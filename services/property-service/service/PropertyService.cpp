#include "service/PropertyService.h"

#include <algorithm>

#include "debug/Debug.h"
#include "service/Limits.h"

namespace propertyservice {

namespace {

// Answers may go anywhere but to the service's own topics, where they would pass for a request or a change.
bool isOwnTopic(const std::string& topic) {
    static const std::string own = "prop-service";
    if (topic.compare(0, own.size(), own) != 0) return false;
    return topic.size() == own.size() || topic[own.size()] == '/' || topic[own.size()] == '-';
}

bool isPublishable(const std::string& topic) {
    return topic.find_first_of(std::string("+#\0", 3)) == std::string::npos;
}

std::string objection(const Property& property, const std::string& value) {
    if (value.size() > maxValueBytes) return "must be at most " + std::to_string(maxValueBytes) + " bytes long";
    return property.definition->rule->objection(value);
}

}  // namespace

PropertyService::PropertyService(const Catalogue& catalogue, IStore& store)
    : store_(store), table_(catalogue, store.load()) {}

std::vector<ipc::OutgoingMessage> PropertyService::handle(const std::vector<ipc::ServiceRequest>& requests) {
    Messages messages;
    messages.reserve(2 * requests.size());
    try {
        for (const ipc::ServiceRequest& request : requests) carryOut(request, messages);
        commit();
        return messages;
    } catch (const StoreException& error) {
        takeBack();
        if (!storeFailing_) dbg::Debug::error() << error.what() << std::endl;
        storeFailing_ = true;
    } catch (...) {
        takeBack();
        throw;
    }
    messages.clear();
    for (const ipc::ServiceRequest& request : requests) carryOutAlone(request, messages);
    return messages;
}

void PropertyService::carryOutAlone(const ipc::ServiceRequest& request, Messages& messages) {
    const std::size_t before = messages.size();
    try {
        carryOut(request, messages);
        commit();
    } catch (const StoreException&) {
        const std::string key = writes_.empty() ? std::string() : writes_.back().first;
        takeBack();
        messages.erase(messages.begin() + static_cast<std::ptrdiff_t>(before), messages.end());
        if (request.responseTopic.empty()) return;
        messages.push_back({request.responseTopic,
                            errorAnswer(key, "storage", "the store refused the write; the old value stands"),
                            request.correlationData, request.qualityOfService});
    }
}

void PropertyService::carryOut(const ipc::ServiceRequest& request, Messages& messages) {
    if (isOwnTopic(request.responseTopic) || !isPublishable(request.responseTopic)) {
        dbg::Debug::warning() << "Refused a request on " << request.topic << ": its response topic is "
                              << request.responseTopic << std::endl;
        return;
    }
    ipc::OutgoingMessage answer{request.responseTopic, "", request.correlationData, request.qualityOfService};
    ipc::OutgoingMessage change;
    try {
        if (request.topic == getTopic) {
            answer.payload = get(request.payload);
        } else if (request.topic == setTopic) {
            answer.payload = set(request.payload, change);
        } else if (request.topic == listTopic) {
            answer.payload = list(request.payload);
        } else {
            return;
        }
    } catch (const BadRequest& error) {
        answer.payload = errorAnswer(error.param(), "bad-request", error.what());
    }
    if (!answer.topic.empty()) messages.push_back(std::move(answer));
    if (!change.topic.empty()) messages.push_back(std::move(change));
}

std::string PropertyService::get(const std::string& payload) {
    const GetRequest request = reader_.get(payload);
    const Property* const property = table_.find(request.param);
    if (property == nullptr) return errorAnswer(request.param, "not-found", "the catalogue has no such key");
    return valueAnswer(property->key, property->value);
}

std::string PropertyService::set(const std::string& payload, ipc::OutgoingMessage& change) {
    SetRequest request = reader_.set(payload);
    Property* const property = table_.find(request.param);
    if (property == nullptr) return errorAnswer(request.param, "not-found", "the catalogue has no such key");
    if (property->definition->readOnly) {
        return errorAnswer(request.param, "read-only", "may not be written by a client");
    }
    const std::string reason = objection(*property, request.value);
    if (!reason.empty()) return errorAnswer(request.param, "invalid-value", reason);

    change = {property->changeTopic, changeMessage(property->key, request.value, request.source), "", 1};
    std::string answer = valueAnswer(property->key, request.value);
    if (!property->isVolatile && !(property->isStored && property->value == request.value)) {
        writes_.emplace_back(property->key, request.value);
        undo_.push_back({property, std::move(property->value), property->isStored});
        property->isStored = true;
        property->value = std::move(request.value);
    } else if (property->isVolatile) {
        undo_.push_back({property, std::move(property->value), property->isStored});
        property->value = std::move(request.value);
    }
    return answer;
}

std::string PropertyService::list(const std::string& payload) {
    const ListRequest request = reader_.list(payload);
    const std::vector<Property>& all = table_.all();
    auto position =
        std::lower_bound(all.begin(), all.end(), request.prefix,
                         [](const Property& property, const std::string& key) { return property.key < key; });
    if (!request.after.empty()) {
        const auto behind =
            std::upper_bound(all.begin(), all.end(), request.after,
                             [](const std::string& key, const Property& property) { return key < property.key; });
        position = std::max(position, behind);
    }
    const auto matches = [&request](const Property& property) {
        return property.key.compare(0, request.prefix.size(), request.prefix) == 0;
    };
    std::string json = "{\"properties\":[";
    const Property* last = nullptr;
    for (std::size_t count = 0; position != all.end() && matches(*position); ++position, ++count) {
        const std::size_t most = position->key.size() + position->value.size();
        if (count == maxPageEntries || (count > 0 && json.size() + most > maxPageBytes)) {
            json += "],\"next\":";
            appendQuoted(json, last->key);
            return json + "}";
        }
        if (count > 0) json += ',';
        json += valueAnswer(position->key, position->value);
        last = &*position;
    }
    return json + "]}";
}

void PropertyService::commit() {
    if (!writes_.empty()) {
        store_.write(writes_);
        if (storeFailing_) dbg::Debug::info() << "The store takes writes again" << std::endl;
        storeFailing_ = false;
    }
    writes_.clear();
    undo_.clear();
}

void PropertyService::takeBack() {
    for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo) {
        undo->property->value = std::move(undo->value);
        undo->property->isStored = undo->isStored;
    }
    undo_.clear();
    writes_.clear();
}

}  // namespace propertyservice
