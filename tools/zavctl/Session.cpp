#include "Session.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <chrono>
#include <iterator>
#include <stdexcept>
#include <utility>

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

}  // namespace

Session::Session(const Environment& environment, std::string host)
    : host_(std::move(host)), bus_(environment.makeBus(host_)), properties_(environment.makeProperties(bus_)) {}

Session::~Session() {
    try {
        bus_->disconnect();
    } catch (const std::exception&) {  // the session ends anyway
    }
}

void Session::subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) {
    bus_->subscribe(topicFilter, callback);
}

void Session::connect() { bus_->connect(host_); }

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

std::vector<propertyapi::Property> Session::list(const std::string& prefix) {
    std::vector<propertyapi::Property> all;
    std::string after;
    do {
        propertyapi::PropertyPage page = properties_->list(prefix, after);
        if (!page.next.empty() && page.next <= after)
            throw std::runtime_error("the property service's list does not advance");
        std::move(page.properties.begin(), page.properties.end(), std::back_inserter(all));
        after = page.next;
    } while (!after.empty());
    return all;
}

std::vector<propertyapi::Property> Session::listOrFail(const std::string& prefix) {
    std::vector<propertyapi::Property> some = list(prefix);
    if (some.empty() && !prefix.empty()) {
        throw Failure(ExitCode::noSuchKey, errors::notFound, "no key begins with \"" + prefix + "\"");
    }
    return some;
}

std::vector<propertyapi::Property> Session::listUncatalogued() {
    std::vector<propertyapi::Property> all;
    Json::Value query;
    query["uncatalogued"] = true;
    for (bool more = true; more;) {
        const Json::Value page = request(propertyprotocol::listTopic, query);
        for (const Json::Value& one : page["properties"]) all.push_back({textOf(one, "param"), textOf(one, "value")});
        const std::string next = textOf(page, "next");
        more = !next.empty();
        if (more && next <= textOf(query, "after")) {
            throw std::runtime_error("the property service's list does not advance");
        }
        query["after"] = next;
    }
    return all;
}

}  // namespace zavctl
