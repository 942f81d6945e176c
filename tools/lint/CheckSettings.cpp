#include <strings.h>

#include <string_view>
#include <unordered_map>

#include "Core/Constants.h"
#include "Core/JobHandlers/NVMJobHandler.h"
#include "catalogue/Catalogue.h"
#include "common/UrlSyntax.h"
#include "lint/Checks.h"
#include "lint/Settings.h"

namespace lint {

namespace {

constexpr std::size_t maxGuesses = 200;  // of misspelt keys in a document: each looks at the whole catalogue
constexpr char lockKeyPrefix[] = "FunctionKeys.";

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

class SettingsCheck {
 public:
    SettingsCheck(Checks& checks, const Job& job) : checks_(checks), job_(job) {}

    void run() {
        const auto& items = job_.description.items;
        seen_.reserve(items.size());
        for (std::size_t index = 0; index < items.size(); ++index) check(items[index], job_.level.items[index]);
    }

 private:
    void check(const zav::Attributes& item, std::size_t element) {
        const auto name = item.find("name");
        const auto value = item.find("value");
        if (name == item.end()) {
            needed(checks_, item, element, "name");
            return;
        }
        if (value == item.end()) {
            const bool isReported = isMisspelt(item, "value", attributesOfItem("param"));
            if (!isReported) checks_.add(RuleId::missingValue, {element}, quoted(name->second) + " has no value");
            checkKey(name->second, element);
            return;
        }
        if (const auto [first, isNew] = seen_.emplace(name->second, element); !isNew) {
            checks_.add(RuleId::duplicateSetting, valueOf(element, "name"), quoted(name->second) + " is set before", "",
                        first->second);
        }
        if (!isFunctionKeyOpen(name->second, element)) return;
        const propertyservice::Definition* const definition = checkKey(name->second, element);
        if (definition != nullptr) checkValue(name->second, value->second, *definition, element);
        checkMeaning(name->second, value->second, element);
        noteLock(name->second, value->second);
    }

    // False if the phone does not write a function key's setting.
    bool isFunctionKeyOpen(const std::string& name, std::size_t element) {
        try {
            if (!zav::isFunctionKeyParam(name, zav::functionKeyPrefix)) return true;
        } catch (const std::exception&) {
            checks_.add(RuleId::functionKeyName, valueOf(element, "name"),
                        quoted(name) + " has no key number behind " + quoted(zav::functionKeyPrefix));
            return false;
        }
        const auto [index, postfix] = zav::getIndexAndPostfix(name, zav::functionKeyPrefix);
        if (postfix == zav::lockPostfix) {
            checks_.add(RuleId::lockFlag, valueOf(element, "name"), quoted(name) + " is never written",
                        "the lock is " + zav::lockKeyOf(index));
            return false;
        }
        if (!isLocked(index)) return true;
        checks_.add(RuleId::lockedKey, valueOf(element, "name"),
                    quoted(name) + " is not written: " + zav::lockKeyOf(index) + " locks it",
                    "write \"0\" to " + zav::lockKeyOf(index) + " in the pass before");
        return false;
    }

    // As the phone: it reads the flag once in each job.
    bool isLocked(const std::string& index) {
        const auto known = lockCache_.find(index);
        if (known != lockCache_.end()) return known->second;
        bool locked = false;
        const auto written = checks_.locks.find(index);
        if (written != checks_.locks.end()) {
            locked = written->second != "0";
        } else if (checks_.options.phone) {
            const auto& values = checks_.options.phone->values;
            const auto value = values.find(zav::lockKeyOf(index));
            locked = value != values.end() && value->second != "0";
        }
        lockCache_.emplace(index, locked);
        return locked;
    }

    void noteLock(const std::string& name, const std::string& value) {
        if (name.rfind(lockKeyPrefix, 0) != 0) return;
        const std::size_t begin = sizeof lockKeyPrefix - 1;
        const std::string index = name.substr(begin, name.find('.', begin) - begin);
        if (name == zav::lockKeyOf(index)) checks_.locks[index] = value;
    }

    const propertyservice::Definition* checkKey(const std::string& name, std::size_t element) {
        if (checks_.options.settings == nullptr) return nullptr;
        const propertyservice::Definition* const definition = checks_.options.settings->find(name);
        if (definition == nullptr) {
            std::string remedy;
            if (guesses_++ < maxGuesses) remedy = keyRemedy(*checks_.options.settings, name);
            const bool isState = remedy.empty() && propertyservice::isState(name);
            checks_.add(RuleId::unknownKey, valueOf(element, "name"), "There is no key " + quoted(name),
                        isState ? "remove it: keys below State. are not settings" : remedy);
        } else if (definition->readOnly) {
            checks_.add(RuleId::readOnlyKey, valueOf(element, "name"), quoted(name) + " is read-only");
        } else if (definition->refuses(zav::constants.provisioningSource)) {
            checks_.add(RuleId::refusedKey, valueOf(element, "name"), quoted(name) + " is refused from a file");
        } else {
            if (propertyservice::isState(name)) {
                checks_.add(RuleId::stateKey, valueOf(element, "name"), quoted(name) + " is a state of the phone");
            }
            return definition;
        }
        return nullptr;
    }

    void checkValue(const std::string& name, const std::string& value, const propertyservice::Definition& definition,
                    std::size_t element) {
        const std::string objection = definition.rule(value);
        if (!objection.empty()) {
            const std::string shown = definition.isSecret() ? "the value" : quoted(value);
            checks_.add(RuleId::badValue, valueOf(element, "value"), name + ": " + shown + " " + objection);
        } else if (!value.empty() && (isBlank(value.front()) || isBlank(value.back()))) {
            checks_.add(RuleId::blanksAround, valueOf(element, "value"),
                        name + ": white space at an end of the value is kept");
        }
        if (!checks_.circumstances.isReadableOnTheWay || checks_.isEncrypted || value.empty()) return;
        if (definition.isSecret()) {
            checks_.add(RuleId::secretOverHttp, valueOf(element, "value"), name + " travels readable over http");
        } else if (value.find('@') != std::string::npos && common::withoutPassword(value) != value) {
            checks_.add(RuleId::secretOverHttp, valueOf(element, "value"),
                        "The password in " + name + " travels readable over http");
        }
    }

    void checkServer(const std::string& value, std::size_t element) {
        const std::size_t scheme = value.find("://");
        if (scheme != std::string::npos && strncasecmp(value.c_str(), "http://", 7) != 0) return;
        const bool hasPassword = value.find('@') != std::string::npos && common::withoutPassword(value) != value;
        checks_.add(RuleId::serverOverHttp, valueOf(element, "value"),
                    "The server is asked over plain http" +
                        std::string(hasPassword ? ", and the password in its URL travels readable" : ""));
    }

    // Settings that the daemon itself reads, whose types allow any text.
    void checkMeaning(const std::string& name, const std::string& value, std::size_t element) {
        if (name == zav::constants.macAddressKey) {
            checks_.add(RuleId::ownAddress, valueOf(element, "name"), quoted(name) + " is the phone's own address");
        } else if (name == zav::constants.periodKey) {
            const std::string effect = periodEffect(value);
            if (!effect.empty()) checks_.add(RuleId::period, valueOf(element, "value"), effect);
        } else if (name == zav::constants.provisioningServerKey && !value.empty()) {
            if (checkUrl(checks_, element, "value", value, UrlUse::server)) checkServer(value, element);
        }
    }

    Checks& checks_;
    const Job& job_;
    std::unordered_map<std::string_view, std::size_t> seen_;  // to the element that sets it first
    std::map<std::string, bool> lockCache_;
    std::size_t guesses_ = 0;
};

}  // namespace

void checkSettings(Checks& checks, const Job& job) { SettingsCheck(checks, job).run(); }

}  // namespace lint
