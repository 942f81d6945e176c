// Answers and changes that a client of the property service receives: the first line is the key, the rest the message.
#include "Messages.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "propertyapi/PropertyExceptions.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"
#include "propertyprotocol/Utf8.h"

namespace fuzz {

namespace {

void checkAnswer(const std::string& key, const std::string& answer) {
    try {
        static_cast<void>(propertyapi::readValue(key, answer));
        propertyapi::checkSetResponse(key, answer);
    } catch (const propertyapi::PropertyException& e) {
        promise(std::string(e.what()).rfind("Property '", 0) == 0, "an error names the property");
    }
    try {
        for (const auto& property : propertyapi::readPage(key, answer).properties) {
            static_cast<void>(property.value.size());
        }
    } catch (const propertyapi::PropertyException&) {
    }
}

void checkChange(const std::string& message) {
    propertyprotocol::Change change;
    if (!propertyprotocol::readChange(message, change) || !propertyprotocol::isUtf8(change.param + change.value))
        return;
    if (!propertyprotocol::isUtf8(change.source)) return;
    propertyprotocol::Change again;
    promise(
        propertyprotocol::readChange(propertyprotocol::changeMessage(change.param, change.value, change.source), again),
        "a written change can be read");
    promise(again.param == change.param && again.value == change.value && again.source == change.source,
            "a change survives being written");
}

void checkRoundTrip(const std::string& key, const std::string& value) {
    if (!propertyprotocol::isUtf8(key) || !propertyprotocol::isUtf8(value)) return;
    const std::string answer = propertyprotocol::jsonObject({{"param", key}, {"value", value}});
    promise(propertyprotocol::countJsonTokens(answer).has_value(), "what is written is strict JSON");
    promise(propertyapi::readValue(key, answer) == value, "a value survives the bus");
}

void checkTopics(const std::string& key) {
    const std::string topic = propertyprotocol::changeTopic(key);
    promise(propertyprotocol::isChangeTopic(topic), "a change's topic is one");
    promise(propertyprotocol::isServiceTopic(topic), "a change's topic is reserved");
}

}  // namespace

void property_answer(const std::string& input) {
    const auto [key, message] = splitLine(input);
    checkAnswer(key, message);
    checkChange(message);
    checkRoundTrip(key, message);
    checkTopics(key);
    Json::Value value;
    const bool strict = propertyprotocol::countJsonTokens(message).has_value();
    const auto error = propertyprotocol::parseJson(message, value);
    promise(!error || !error->text().empty(), "an error has a text");
    promise(!strict || error || propertyprotocol::isUtf8(message), "JSON is UTF-8");
}

}  // namespace fuzz
