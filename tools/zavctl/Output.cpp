#include "Output.h"

#include <iomanip>

#include "Json.h"
#include "debug/Debug.h"

namespace zavctl {

Json::Value toObject(std::initializer_list<std::pair<const char*, Json::Value>> members) {
    Json::Value object;
    for (const auto& [name, value] : members) object[name] = value;
    return object;
}

Json::Value orNull(const std::optional<std::string>& text) { return text ? Json::Value(*text) : Json::Value(); }

void printJson(std::ostream& out, const Json::Value& object) { out << compactJson(object) << std::endl; }

void printError(std::ostream& err, const std::string& text) {
    err << "zavctl: " << dbg::escapeControls(text) << std::endl;
}

void printTable(std::ostream& out, int width, const Table& table) {
    for (const auto& [name, value] : table) {
        out << std::left << std::setw(width) << name << (value.empty() ? "-" : dbg::escapeControls(value)) << "\n";
    }
    out.flush();
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
}

Json::Value toNumber(const std::string& text) { return isNumber(text) ? Json::Value(std::stoi(text)) : Json::Value(); }

}  // namespace zavctl
