#include <algorithm>

#include "Core/GlobalConfig.h"
#include "Core/JobHandlers/JobHandler.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "common/Ascii.h"
#include "lint/Checks.h"

namespace lint {

namespace {

bool contains(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

Role roleOf(const std::string& root) {
    if (root == "provisioning") return Role::initial;
    return root == "settings" || root == "scenario" ? Role::published : Role::jobFile;
}

void checkVersion(Checks& checks, const zav::Attributes& root) {
    const auto version = root.find("version");
    if (version == root.end()) {
        if (isMisspelt(root, "version", rootAttributes())) return;
        checks.add(RuleId::missingVersion, {0}, "The root has no version");
        return;
    }
    const std::string& text = version->second;
    if (!zav::isFormatVersion(text)) {
        checks.add(RuleId::formatVersion, valueOf(0, "version"),
                   "Format version " + quoted(text) + " is not supported");
        return;
    }
    const std::string& pass = checks.circumstances.passVersion;
    if (!pass.empty() && pass != text) {
        checks.add(RuleId::otherVersion, valueOf(0, "version"),
                   "Format version " + quoted(text) + ", but that of the initial file is " + quoted(pass),
                   "write version=" + quoted(pass));
        return;
    }
    checks.version = text;
    if (zav::allowedJobs(text).empty()) {
        checks.add(RuleId::versionWithoutJobs, valueOf(0, "version"),
                   "Format version " + quoted(text) + " allows no job");
    }
}

void checkProduct(Checks& checks, const zav::Attributes& root) {
    const auto product = root.find("productID");
    if (product == root.end()) {
        const bool isReported = isMisspelt(root, "productID", rootAttributes());
        if (!isReported) checks.add(RuleId::missingProduct, {0}, "The root has no productID");
    } else if (product->second != zav::GlobalConfig::productIdentifier) {
        checks.add(RuleId::product, valueOf(0, "productID"), "The file is for the product " + quoted(product->second));
    }
}

bool isHexDigit(char c) { return common::isAsciiDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

std::string digitsOf(const std::string& address) {
    std::string digits;
    for (const char c : address) {
        if (isHexDigit(c)) digits += c;
    }
    return digits;
}

// The form of NET.MAC.Address on every phone: six pairs of digits and colons.
bool beginsWithUsualForm(const std::string& address) {
    if (address.size() < 17) return false;
    for (std::size_t at = 0; at < 17; ++at) {
        if (at % 3 == 2 ? address[at] != ':' : !isHexDigit(address[at])) return false;
    }
    return true;
}

void checkMacAddress(Checks& checks, const zav::Attributes& root) {
    const auto address = root.find("macAddress");
    if (address == root.end()) return;
    const std::string device = checks.options.phone ? checks.options.phone->macAddress : "";
    if (device.empty()) {
        if (!beginsWithUsualForm(address->second)) {
            checks.add(RuleId::macForm, valueOf(0, "macAddress"),
                       quoted(address->second) + " is not written as phones write their MAC address");
        }
    } else if (!zav::isMacAddressOf(device, address->second)) {
        const std::string meant = digitsOf(address->second);
        const bool isSame = !meant.empty() && zav::isMacAddressOf(digitsOf(device), meant);
        if (isSame) {
            checks.add(RuleId::macForm, valueOf(0, "macAddress"),
                       quoted(address->second) + " is not written as the phone's address, " + device,
                       "write macAddress=\"" + device + "\", or leave it out");
        } else {
            checks.add(RuleId::otherPhone, valueOf(0, "macAddress"),
                       quoted(address->second) + " is not the phone's address, " + device);
        }
    }
}

}  // namespace

void checkRoot(Checks& checks) {
    const std::string root = checks.document.nameOf(0);
    checks.role = checks.circumstances.role;
    if (!contains(zav::verifiableRoots(), root)) {
        checks.add(RuleId::unknownRoot, {0}, "The root " + quoted(root) + " is not that of a provisioning file",
                   suggestion(root, zav::verifiableRoots()));
        return;
    }
    if (checks.role == Role::byRoot) checks.role = roleOf(root);
    if (checks.role == Role::initial && root != "provisioning") {
        checks.add(RuleId::initialRoot, {0}, "The initial file has the root " + quoted(root));
    }
    const zav::Attributes attributes = checks.document.attributesOf(0);
    checkProduct(checks, attributes);
    checkMacAddress(checks, attributes);
    checkVersion(checks, attributes);
}

}  // namespace lint
