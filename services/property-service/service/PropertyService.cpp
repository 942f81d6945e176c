#include "service/PropertyService.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "debug/Debug.h"
#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {

namespace {

namespace errors = propertyprotocol::errors;

constexpr char noSuchKey[] = "the catalogue has no such key";
// Limits of what is logged about refusals, so that a client cannot flood the log.
constexpr std::size_t maxLoggedCharacters = 80;
constexpr std::size_t maxLoggedPerImport = 10;

bool isPublishable(const std::string& topic) {
    const auto isForbidden = [](char letter) { return letter == '+' || letter == '#' || letter == '\0'; };
    return std::none_of(topic.begin(), topic.end(), isForbidden);
}

std::string objection(const Property& property, const std::string& value) {
    if (value.size() > maxValueBytes) return "must be at most " + std::to_string(maxValueBytes) + " bytes long";
    return property.definition->rule(value);
}

}  // namespace

std::string excerpt(const std::string& text, std::size_t maxCharacters) {
    std::string shown;
    std::size_t at = 0;
    for (std::size_t count = 0; count < maxCharacters && at < text.size(); ++count) {
        const std::size_t length = propertyprotocol::utf8SequenceLength(text, at);
        if (length == 0) break;
        const std::string character = text.substr(at, length);
        // Some terminals execute U+0080 to U+009F.
        if (character >= "\xc2\x80" && character <= "\xc2\x9f") {
            char escape[7];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(character[1]));
            shown += escape;
        } else {
            shown += character;
        }
        at += length;
    }
    return at < text.size() ? shown + "..." : shown;
}

PropertyService::PropertyService(PropertyTable defaults, IStore& store) : store_(store), table_(std::move(defaults)) {
    table_.apply(store_.load());
}

std::vector<ipc::OutgoingMessage> PropertyService::handle(const std::vector<ipc::ServiceRequest>& requests) {
    Messages messages;
    messages.reserve(2 * requests.size());
    isRetry_ = false;
    try {
        for (const ipc::ServiceRequest& request : requests) execute(request, messages);
        commit();
        return messages;
    } catch (const DamagedStore&) {
        rollBack();
        rebuildNeeded_ = true;  // the first retry below rebuilds the store
    } catch (const StoreException& error) {
        rollBack();
        if (!storeFailing_) dbg::Debug::error() << error.what() << std::endl;
        storeFailing_ = true;
    } catch (...) {
        rollBack();
        throw;
    }
    messages.clear();
    isRetry_ = true;
    for (const ipc::ServiceRequest& request : requests) executeAlone(request, messages);
    return messages;
}

void PropertyService::executeAlone(const ipc::ServiceRequest& request, Messages& messages) {
    const std::size_t before = messages.size();
    try {
        execute(request, messages);
        commit();
    } catch (const StoreException&) {
        const std::string key = writes_.size() == 1 ? writes_.back().first : std::string();
        rollBack();
        messages.erase(messages.begin() + static_cast<std::ptrdiff_t>(before), messages.end());
        if (request.responseTopic.empty()) return;
        messages.push_back({request.responseTopic,
                            errorAnswer(key, errors::storage, "the store refused the write; the old value stands"),
                            request.correlationData, request.qualityOfService});
    }
}

void PropertyService::execute(const ipc::ServiceRequest& request, Messages& messages) {
    // Subscribers would mistake a response on one of these topics for a request or a change.
    if (propertyprotocol::isServiceTopic(request.responseTopic) || !isPublishable(request.responseTopic)) {
        if (!isRetry_) {
            dbg::Debug::warning() << "Refused a request on " << request.topic << ": its response topic is "
                                  << request.responseTopic << std::endl;
        }
        return;
    }
    std::string payload;
    try {
        if (request.topic == propertyprotocol::getTopic) {
            payload = get(request.payload);
        } else if (request.topic == propertyprotocol::setTopic) {
            payload = set(request.payload, messages);
        } else if (request.topic == propertyprotocol::listTopic) {
            payload = list(request.payload);
        } else if (request.topic == propertyprotocol::describeTopic) {
            payload = describe(request.payload);
        } else if (request.topic == propertyprotocol::importTopic) {
            payload = import(request.payload, messages);
        }
    } catch (const BadRequest& error) {
        payload = errorAnswer(error.param(), errors::badRequest, error.what());
    }
    if (request.responseTopic.empty()) return;
    messages.push_back({request.responseTopic, std::move(payload), request.correlationData, request.qualityOfService});
}

std::string PropertyService::get(const std::string& payload) {
    const GetRequest request = readGet(payload);
    const Property* const property = table_.find(request.param);
    if (property == nullptr) return errorAnswer(request.param, errors::notFound, noSuchKey);
    return valueAnswer(property->key, property->value);
}

std::optional<PropertyService::Refusal> PropertyService::checkWrite(const Property* property, const std::string& source,
                                                                    const std::string* value) const {
    if (property == nullptr) return Refusal{errors::notFound, noSuchKey};
    if (property->definition->readOnly) return Refusal{errors::readOnly, "may not be written by a client"};
    if (property->definition->refuses(source)) {
        return Refusal{errors::readOnly, "may not be written by the source \"" + source + "\""};
    }
    std::string reason = value == nullptr ? std::string() : objection(*property, *value);
    if (reason.empty()) return std::nullopt;
    return Refusal{errors::invalidValue, std::move(reason)};
}

void PropertyService::logRefusal(const Property& property, const std::string& value, const std::string& source,
                                 const Refusal& refusal) const {
    if (isRetry_) return;
    const std::string shown =
        property.definition->isSecret() ? "***" : "\"" + excerpt(value, maxLoggedCharacters) + "\"";
    dbg::Debug::warning() << "Refused " << property.key << " = " << shown << " from \""
                          << excerpt(source, maxLoggedCharacters) << "\": " << refusal.reason << std::endl;
}

std::string PropertyService::set(const std::string& payload, Messages& messages) {
    SetRequest request = readSet(payload);
    Property* const property = table_.find(request.param);
    if (const std::optional<Refusal> refusal = checkWrite(property, request.source, &request.value)) {
        if (property != nullptr) logRefusal(*property, request.value, request.source, *refusal);
        return errorAnswer(request.param, refusal->code, refusal->reason);
    }
    write(*property, std::move(request.value), request.source, messages);
    return valueAnswer(property->key, property->value);
}

std::string PropertyService::import(const std::string& payload, Messages& messages) {
    ImportRequest request = readImport(payload);
    std::vector<std::string> errors;
    std::set<std::string> seen;
    for (const ImportRequest::Write& entry : request.writes) {
        const Property* const property = table_.find(entry.param);
        std::optional<Refusal> refusal = checkWrite(property, request.source, entry.value ? &*entry.value : nullptr);
        if (!refusal && !seen.insert(entry.param).second) refusal = Refusal{errors::badRequest, "duplicate key"};
        if (!refusal || errors.size() == maxPageEntries) continue;
        const bool isLogged = request.apply && errors.size() < maxLoggedPerImport;
        if (isLogged && property != nullptr && entry.value) {
            logRefusal(*property, *entry.value, request.source, *refusal);
        }
        errors.push_back(errorAnswer(entry.param, refusal->code, refusal->reason));
    }
    if (!errors.empty()) return importRefusal(errors);
    if (request.apply) {
        for (ImportRequest::Write& entry : request.writes) {
            write(*table_.find(entry.param), std::move(entry.value), request.source, messages);
        }
    }
    return importAnswer(request.writes.size());
}

void PropertyService::write(Property& property, std::optional<std::string> value, const std::string& source,
                            Messages& messages) {
    const Stored stored = !property.isVolatile && value ? Stored::value : Stored::nothing;
    std::string next = value ? std::move(*value) : std::string(property.definition->defaultValue);
    messages.push_back({propertyprotocol::changeTopic(property.key),
                        propertyprotocol::changeMessage(property.key, next, source), "", 1});
    const bool toStore =
        !property.isVolatile && (stored != property.stored || (stored == Stored::value && property.value != next));
    if (toStore) {
        writes_.emplace_back(property.key, stored == Stored::value ? std::optional<std::string>(next) : std::nullopt);
    }
    if (!toStore && property.value == next) return;
    undo_.push_back({&property, std::move(property.value), property.stored});
    property.stored = stored;
    property.value = std::move(next);
}

// Entries with the requested prefix, starting behind `after`, until the page is full.
template <typename Entry, typename Render>
std::string PropertyService::page(const char* name, const std::vector<Entry>& all, const ListRequest& request,
                                  Render render) {
    // A NUL sorts before all else, so this is the first key behind `after`.
    const std::string first = request.after.empty() ? request.prefix : std::max(request.prefix, request.after + '\0');
    auto position = std::lower_bound(all.begin(), all.end(), first,
                                     [](const Entry& entry, const std::string& key) { return entry.key < key; });
    const auto matches = [&request](const Entry& entry) {
        return entry.key.compare(0, request.prefix.size(), request.prefix) == 0;
    };
    std::string json = "{\"" + std::string(name) + "\":[";
    const Entry* last = nullptr;
    for (std::size_t count = 0; position != all.end() && matches(*position); ++position, ++count) {
        const std::size_t size = position->key.size() + position->value.size();
        if (count == maxPageEntries || (count > 0 && json.size() + size > maxPageBytes)) {
            json += "],\"next\":";
            propertyprotocol::appendString(json, last->key);
            return json + "}";
        }
        if (count > 0) json += ',';
        json += render(*position);
        last = &*position;
    }
    return json + "]}";
}

std::string PropertyService::list(const std::string& payload) {
    const auto render = [](const auto& entry) { return valueAnswer(entry.key, entry.value); };
    const ListRequest request = readList(payload);
    if (request.uncatalogued) return page("properties", table_.uncatalogued(), request, render);
    return page("properties", table_.all(), request, render);
}

std::string PropertyService::describe(const std::string& payload) {
    const auto render = [](const Property& property) {
        return description(property.key, *property.definition, property.isVolatile);
    };
    const DescribeRequest request = readDescribe(payload);
    if (!request.param) return page("definitions", table_.all(), request.page, render);
    const Property* const property = table_.find(*request.param);
    if (property == nullptr) return errorAnswer(*request.param, errors::notFound, noSuchKey);
    return render(*property);
}

void PropertyService::commit() {
    if (!writes_.empty()) {
        if (rebuildNeeded_) {
            rebuildStore();
        } else {
            store_.write(writes_);
        }
        if (storeFailing_) dbg::Debug::info() << "The store is writable again" << std::endl;
        storeFailing_ = false;
    }
    writes_.clear();
    undo_.clear();
}

// Memory has every value, including those of the current transaction, so nothing is lost with the file. Until the
// rebuild succeeds nothing is written: the values of an old backup would replace answered sets.
void PropertyService::rebuildStore() {
    std::vector<IStore::Entry> entries;
    for (const Property& property : table_.all()) {
        if (property.isVolatile) continue;
        entries.emplace_back(
            property.key, property.stored == Stored::value ? std::optional<std::string>(property.value) : std::nullopt);
    }
    for (const UncataloguedValue& other : table_.uncatalogued()) entries.emplace_back(other.key, other.value);
    try {
        store_.rebuild(entries);
    } catch (const StoreException& error) {
        if (!storeFailing_) dbg::Debug::error() << error.what() << std::endl;
        storeFailing_ = true;
        throw;
    }
    rebuildNeeded_ = false;
}

void PropertyService::rollBack() {
    for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo) {
        undo->property->value = std::move(undo->value);
        undo->property->stored = undo->stored;
    }
    undo_.clear();
    writes_.clear();
}

}  // namespace propertyservice
