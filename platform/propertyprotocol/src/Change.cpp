#include "propertyprotocol/Change.h"

#include "propertyprotocol/Json.h"

namespace propertyprotocol {

std::string changeMessage(const std::string& param, const std::string& value, const std::string& source) {
    return jsonObject({{"param", param}, {"value", value}, {"source", source}});
}

bool readChange(const std::string& message, Change& change) {
    Json::Value parsed;
    if (parseJson(message, parsed) || !parsed.isObject()) return false;
    const Json::Value& object = parsed;
    if (!object["param"].isString()) return false;
    change = {textMember(object, "param"), textMember(object, "value"), textMember(object, "source")};
    return true;
}

}  // namespace propertyprotocol
