#include "Session.h"

#include <iterator>
#include <stdexcept>

#include "Failure.h"
#include "Json.h"
#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

namespace errors = propertyprotocol::errors;

std::string textOf(const Json::Value& object, const char* member) {
    const Json::Value& value = object[member];
    return value.isString() ? value.asString() : std::string();
}

constexpr std::chrono::seconds requestTimeout{5};

[[noreturn]] void throwFailure(const Json::Value& answer) {
    const std::string word = textOf(answer, "error");
    const std::string key = textOf(answer, "param");
    const std::string reason = (key.empty() ? "" : key + ": ") + textOf(answer, "reason");
    if (word == errors::notFound) throw Failure(ExitCode::noSuchKey, word, reason + " (zavctl list shows the keys)");
    throw Failure(ExitCode::failed, word, reason);
}

void checkNext(const std::string& next, const std::string& after) {
    if (!next.empty() && next <= after) throw std::runtime_error("the property service's list does not advance");
}

}  // namespace

Session::Session(std::shared_ptr<ipc::IIPCClient> bus, const Environment& environment)
    : bus_(std::move(bus)), properties_(environment.makeProperties(bus_)) {}

// Delegates so that the destructor disconnects also if `connect` throws.
Session::Session(const Environment& environment, const std::string& host, const Subscriptions& subscriptions)
    : Session(environment.makeBus(host), environment) {
    for (const auto& [filter, callback] : subscriptions) bus_->subscribe(filter, *callback);
    bus_->connect(host);
}

Session::~Session() {
    try {
        bus_->disconnect();
    } catch (const std::exception&) {  // the session ends anyway
    }
}

Json::Value Session::request(const std::string& topic, const Json::Value& content) {
    const std::string payload = compactJson(content);
    if (payload.size() > propertyprotocol::maxImportBytes) {
        throw Failure(ExitCode::failed, errors::badRequest,
                      "the settings are " + std::to_string(payload.size()) + " bytes; the phone accepts at most " +
                          std::to_string(propertyprotocol::maxImportBytes) + " at once: split the file");
    }
    const std::string text = bus_->request(topic, payload, propertyprotocol::statusTopic, requestTimeout);
    Json::Value answer;
    const auto error = propertyprotocol::parseJson(text, answer);
    if (error || !answer.isObject()) {
        throw Failure(ExitCode::failed, errors::badRequest,
                      "the property service sent an invalid answer: " + (error ? error->text() : ""));
    }
    if (std::as_const(answer)["error"].isString()) throwFailure(answer);
    return answer;
}

std::vector<Json::Value> Session::requestAll(const std::string& topic, Json::Value content, const char* member) {
    std::vector<Json::Value> all;
    do {
        const Json::Value page = request(topic, content);
        all.insert(all.end(), page[member].begin(), page[member].end());
        const std::string next = textOf(page, "next");
        checkNext(next, textOf(content, "after"));
        content["after"] = next;
    } while (!textOf(content, "after").empty());
    return all;
}

std::vector<propertyapi::Property> Session::list(const std::string& prefix) {
    std::vector<propertyapi::Property> all;
    std::string after;
    do {
        propertyapi::PropertyPage page = properties_->list(prefix, after);
        checkNext(page.next, after);
        std::move(page.properties.begin(), page.properties.end(), std::back_inserter(all));
        after = page.next;
    } while (!after.empty());
    return all;
}

}  // namespace zavctl
