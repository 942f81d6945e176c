// The files that zavctl imports and restores.
#include "SettingsFile.h"

#include "Failure.h"
#include "Json.h"
#include "fuzz/InputFile.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"

namespace fuzz {

void settings_file(const std::string& input) {
    try {
        const zavctl::Settings settings = zavctl::readSettings(inputFile(input));
        for (const bool indented : {false, true}) {
            const Json::Value root = zavctl::toJson(settings);
            const std::string text = indented ? zavctl::readableJson(root) : zavctl::compactJson(root);
            promise(zavctl::readSettings(inputFile(text)) == settings, "settings survive being written");
        }
    } catch (const zavctl::Failure& e) {
        promise(*e.what() != '\0', "a refusal has a reason");
    }
}

}  // namespace fuzz
