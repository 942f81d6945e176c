#include "Session.h"

#include <json/reader.h>
#include <json/value.h>

namespace zavctl {

namespace {

std::string textOf(const Json::Value& object, const char* member) {
    const Json::Value& value = object[member];
    return value.isString() ? value.asString() : std::string();
}

}  // namespace

bool readChange(const std::string& payload, Change& change) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value object;
    std::string errors;
    try {
        if (!reader->parse(payload.data(), payload.data() + payload.size(), &object, &errors)) return false;
    } catch (const Json::Exception&) {
        return false;
    }
    if (!object.isObject() || !object["param"].isString()) return false;
    change = {textOf(object, "param"), textOf(object, "value"), textOf(object, "source")};
    return true;
}

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

}  // namespace zavctl
