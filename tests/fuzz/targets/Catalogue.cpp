// The property service's catalogue: a file is refused as a whole, or each of its definitions is usable.
#include "catalogue/Catalogue.h"

#include "catalogue/KeyPattern.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "propertyprotocol/Json.h"
#include "service/Codec.h"

namespace fuzz {

namespace {

using namespace propertyservice;

void checkPattern(const std::string& pattern) {
    try {
        const KeyPattern keyPattern(pattern);
        std::size_t count = 0;
        keyPattern.expand([&count](std::string_view key) {
            ++count;
            promise(key.find('{') == std::string::npos || !isKey(key), "an expanded key has no range");
        });
        promise(count == keyPattern.size(), "a pattern knows how many keys it has");
    } catch (const std::invalid_argument&) {
    }
}

void checkKeys(const std::vector<CatalogueKey>& keys, const std::string& value) {
    const CatalogueKey* previous = nullptr;
    const Definition* checked = nullptr;
    for (const CatalogueKey& each : keys) {
        promise(isKey(each.key), "each key is valid");
        promise(previous == nullptr || previous->key < each.key, "keys are sorted, and none occurs twice");
        previous = &each;
        if (each.definition.get() == checked) continue;  // all keys of a pattern share it
        checked = each.definition.get();
        promise(checked->rule(checked->defaultValue).empty(), "a default is allowed by its own rule");
        static_cast<void>(checked->rule(value));
        Json::Value described;
        const std::string text = description(each.key, *checked, isState(each.key));
        promise(propertyprotocol::countJsonTokens(text) && !propertyprotocol::parseJson(text, described),
                "a description is JSON");
    }
}

}  // namespace

void catalogue(const std::string& input) {
    const auto [value, text] = splitLine(input);
    checkPattern(value);
    try {
        checkKeys(Catalogue::parse(text, "catalogue.json").keys(), value);
    } catch (const CatalogueException& e) {
        promise(std::string(e.what()).rfind("catalogue.json", 0) == 0, "an error names the file");
    }
}

}  // namespace fuzz
