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
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

namespace errors = propertyprotocol::errors;

std::string textOf(const Json::Value& object, const char* member) {
    const Json::Value& value = object[member];
    return value.isString() ? value.asString() : std::string();
}

constexpr std::chrono::seconds patience{5};

[[noreturn]] void failAs(const Json::Value& answer) {
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
    } catch (const std::exception&) {  // it is over either way
    }
}

void Session::subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) {
    bus_->subscribe(topicFilter, callback);
}

void Session::connect() { bus_->connect(host_); }

Json::Value Session::ask(const std::string& topic, const Json::Value& request) {
    const std::string question = compactJson(request);
    if (question.size() > propertyprotocol::maxImportBytes) {
        throw Failure(ExitCode::failed, errors::badRequest,
                      "the settings are " + std::to_string(question.size()) + " bytes, and the phone takes " +
                          std::to_string(propertyprotocol::maxImportBytes) + " at once: divide the file");
    }
    const std::string text = bus_->request(topic, question, propertyprotocol::statusTopic, patience);
    Json::Value answer;
    std::string error;
    if (!parseJson(text, answer, error) || !answer.isObject()) {
        throw Failure(ExitCode::failed, errors::badRequest,
                      "the property service's answer cannot be understood: " + error);
    }
    if (std::as_const(answer)["error"].isString()) failAs(answer);
    return answer;
}

std::vector<propertyapi::Property> Session::list(const std::string& prefix) {
    std::vector<propertyapi::Property> all;
    std::string after;
    do {
        propertyapi::PropertyPage page = properties_->list(prefix, after);
        if (!page.next.empty() && page.next <= after) throw std::runtime_error("the property service lists in circles");
        std::move(page.properties.begin(), page.properties.end(), std::back_inserter(all));
        after = page.next;
    } while (!after.empty());
    return all;
}

std::vector<propertyapi::Property> Session::listSome(const std::string& prefix) {
    std::vector<propertyapi::Property> some = list(prefix);
    if (some.empty() && !prefix.empty()) {
        throw Failure(ExitCode::noSuchKey, errors::notFound, "no key begins with \"" + prefix + "\"");
    }
    return some;
}

std::vector<propertyapi::Property> Session::listUncatalogued() {
    std::vector<propertyapi::Property> all;
    Json::Value request;
    request["uncatalogued"] = true;
    for (bool more = true; more;) {
        const Json::Value page = ask(propertyprotocol::listTopic, request);
        for (const Json::Value& one : page["properties"]) all.push_back({textOf(one, "param"), textOf(one, "value")});
        const std::string next = textOf(page, "next");
        more = !next.empty();
        if (more && next <= textOf(request, "after")) {
            throw std::runtime_error("the property service lists in circles");
        }
        request["after"] = next;
    }
    return all;
}

}  // namespace zavctl
