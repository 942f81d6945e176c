#include "Core/JobHandlers/ProvisioningFileParser.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "Core/Constants.h"
#include "Core/GlobalConfig.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/Pass.h"
#include "common/Descriptor.h"
#include "common/Execute.h"
#include "common/PathRoot.h"
#include "common/Quote.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* oldestFormatVersion = "1.0";
constexpr std::chrono::milliseconds decryptionTimeout{10000};
constexpr const char* keyFile = "/etc/zav.d/key";
// The walk visits some elements once per nesting level, so a hostile file can multiply its work.
constexpr std::size_t maximumSteps = 5000000;
// Attribute names and values together. A walk that visits each element once collects less than the file size.
constexpr std::size_t maximumBytes = 4UL * XMLReader::maximumFileSize;

std::size_t bytesOf(const Attributes& attributes) {
    std::size_t bytes = 0;
    for (const auto& [name, value] : attributes) bytes += name.size() + value.size();
    return bytes;
}

// Empty if the key is readable.
std::string keyFileError() {
    const common::Descriptor key(::open(common::rooted(keyFile).c_str(), O_RDONLY | O_CLOEXEC));
    char first = 0;
    if (key.get() >= 0 && ::read(key.get(), &first, 1) >= 0) return {};
    return std::string("Cannot read the key file ") + keyFile + ": " + common::reasonOf(errno);
}

int upper(char c) { return std::toupper(static_cast<unsigned char>(c)); }

// In words.
std::string refusal(const Attributes& root, bool product, bool macAddress, bool version) {
    std::string text;
    const auto add = [&](bool passed, const char* name, const char* meaning) {
        if (passed) return;
        text += (text.empty() ? "" : "; ") + std::string(name) + " " + quote(attributeOr(root, name, "")) + meaning;
    };
    add(product, "productID", " is not this product");
    add(macAddress, "macAddress", " is not this phone's");
    add(version, "version", " is not supported, or not that of the initial file");
    return text;
}

const char* digit(bool passed) { return passed ? "1" : "0"; }

}  // namespace

const std::vector<std::string>& verifiableRoots() {
    static const std::vector<std::string> roots{"provisioning", "firmware", "nvm", "settings", "custom", "scenario"};
    return roots;
}

bool isFormatVersion(const std::string& version) {
    return version >= oldestFormatVersion && version <= GlobalConfig::fileFormatVersion;
}

bool isMacAddressOf(const std::string& device, const std::string& address) {
    return address.size() >= device.size() && std::equal(device.begin(), device.end(), address.begin(),
                                                         [](char a, char b) { return upper(a) == upper(b); });
}

ProvisioningFileParser::ProvisioningFileParser(std::string filePath, XMLReader& reader,
                                               std::shared_ptr<propertyapi::IPropertyApi> properties,
                                               Decryption decryption)
    : filePath_(std::move(filePath)), reader_(reader), properties_(std::move(properties)) {
    if (decryption == Decryption::inPlace) decrypt();
}

// Only openssl's exit status tells whether the file was encrypted. The path needs no quoting: local file names are
// reduced to safe characters before the download.
void ProvisioningFileParser::decrypt() {
    const std::string file = common::rooted(filePath_);
    const std::string temporary = file + ".tmp";
    std::remove(temporary.c_str());  // openssl would follow a symbolic link
    try {
        os::execute(
            "openssl enc -aes-128-cbc -d -in " + file + " -out " + temporary + " -pass file:" + common::rooted(keyFile),
            decryptionTimeout, Pass::current().stop().get());
        std::rename(temporary.c_str(), file.c_str());
        return;
    } catch (const os::CommandNotStartedException& e) {
        decryptionError_ = e.what();
    } catch (...) {
        decryptionError_ = keyFileError();
    }
    std::remove(temporary.c_str());
}

// Once per pass, and only for a corrupted file: a plain file needs neither key nor openssl.
void ProvisioningFileParser::reportDecryptionError() const {
    if (decryptionError_.empty()) return;
    bool& reported = Pass::current().usage().decryptionReported;
    if (reported) return;
    reported = true;
    dbg::Debug::warning() << "If the file is encrypted, it could not be decrypted: " << decryptionError_ << std::endl;
}

bool ProvisioningFileParser::loadAndVerify() {
    if (!reader_.load(filePath_)) {
        dbg::Debug::warning() << "File " << filePath_ << " is corrupted" << std::endl;
        reportDecryptionError();
        return false;
    }
    return verify();
}

bool ProvisioningFileParser::parseInitialFile() {
    if (!loadAndVerify()) return false;
    const bool isInitial = reader_.name() == "provisioning";
    if (!isInitial) {
        dbg::Debug::warning() << "Initial file is does not contain <provisioning> node." << std::endl;
    }
    setCurrentProvisioningVersion(reader_.attributes()["version"]);
    return isInitial;
}

bool ProvisioningFileParser::verify() {
    const std::vector<std::string>& roots = verifiableRoots();
    if (std::find(roots.begin(), roots.end(), reader_.name()) == roots.end()) {
        PassObserver::current().fileRefused(filePath_, "its root element is " + quote(reader_.name()));
        return false;
    }
    dbg::Debug::info() << "File " << filePath_ << " is verifiable" << std::endl;
    try {
        const Attributes root = reader_.attributes();
        const bool product = verifyProduct(root);
        const bool macAddress = verifyMacAddress(root);
        const bool version = verifyVersion(root);
        if (product && macAddress && version) {
            dbg::Debug::info() << "File " << filePath_ << " verified positively." << std::endl;
            return true;
        }
        dbg::Debug::error() << "File " << filePath_ << " check error: ID=" << digit(product)
                            << " MAC=" << digit(macAddress) << " VER=" << digit(version) << std::endl;
        PassObserver::current().fileRefused(filePath_, refusal(root, product, macAddress, version));
    } catch (const std::exception& e) {
        dbg::Debug::error() << "XML File doesn't meet provisioning requirements. Exception thrown: " << e.what()
                            << std::endl;
    }
    return false;
}

bool ProvisioningFileParser::verifyProduct(const Attributes& root) const {
    const auto product = root.find("productID");
    if (product == root.end()) {
        dbg::Debug::error() << "Product ID is not specified in xml" << std::endl;
        return false;
    }
    if (product->second != GlobalConfig::productIdentifier) {
        dbg::Debug::warning() << "Incorrect product ID " << quote(product->second, GlobalConfig::productIdentifier, "=")
                              << std::endl;
        return false;
    }
    return true;
}

bool ProvisioningFileParser::verifyMacAddress(const Attributes& root) const {
    const std::string device = properties_->get(constants.macAddressKey);
    const auto address = root.find("macAddress");
    if (address == root.end()) {
        dbg::Debug::info() << "MAC address not provided in XML, skipping check" << std::endl;
        return true;
    }
    return isMacAddressOf(device, address->second);
}

bool ProvisioningFileParser::verifyVersion(const Attributes& root) const {
    const auto version = root.find("version");
    if (version == root.end()) {
        dbg::Debug::error() << "Provisioning version is not specified in xml" << std::endl;
        return false;
    }
    if (!isFormatVersion(version->second)) {
        dbg::Debug::warning() << "Incorrect file format version, provisioning not supported" << std::endl;
        return false;
    }
    const std::string current = currentProvisioningVersion();
    if (!current.empty() && current != version->second) {
        dbg::Debug::warning() << "Inconsistient provisioning versions " << quote(current, version->second, "=")
                              << std::endl;
        return false;
    }
    return true;
}

struct ProvisioningFileParser::Walk {
    std::vector<JobDescription>& jobs;
    const std::size_t itemsLeft;  // of the pass
    std::size_t items = 0;
    std::size_t steps = 0;
    std::size_t bytes = 0;
    bool exceedsFile() const { return items > maximumItems || steps > maximumSteps || bytes > maximumBytes; }
    bool exceeded() const { return items > itemsLeft || exceedsFile(); }
};

bool ProvisioningFileParser::collectJobs(std::vector<JobDescription>& jobs) {
    const std::size_t before = jobs.size();
    std::size_t& used = Pass::current().usage().items;
    Walk walk{jobs, Pass::maximumItems - used};
    collectLevel(reader_.name(), true, walk);
    if (walk.exceedsFile()) {
        dbg::Debug::error() << "File " << filePath_ << " lists more than " << maximumItems
                            << " items or is nested too heavily, none of its jobs will be started" << std::endl;
    } else if (walk.exceeded()) {
        dbg::Debug::error() << "File " << filePath_ << " brings the pass to more than " << Pass::maximumItems
                            << " items, none of its jobs will be started" << std::endl;
    }
    if (walk.exceeded()) jobs.resize(before);
    used += std::min(walk.items, walk.itemsLeft);
    return true;
}

void ProvisioningFileParser::reportMixedItems(const std::string& jobName) {
    dbg::Debug::info() << "XML child nodes have inconsistient names, please verify xml job: " << jobName << std::endl;
}

// The reader keeps a restored position on its stack, so after a nested level the outer one continues from the element
// entered last, and child names of the nested level stay in the set. `atElement` is false if the level has no element.
void ProvisioningFileParser::collectLevel(const std::string& parentName, bool atElement, Walk& walk) {
    JobDescription job;
    childNames_.clear();
    while (atElement && !walk.exceeded()) {
        ++walk.steps;
        if (reader_.hasChildren()) {
            const std::string name = reader_.name();
            reader_.savePosition();
            const bool nestedAtElement = reader_.firstChild();
            collectLevel(name, nestedAtElement, walk);
        } else {
            job.itemName = reader_.name();
            Attributes attributes = reader_.attributes();
            if (!attributes.empty()) {
                ++walk.items;
                walk.bytes += bytesOf(attributes);
                job.items.push_back(std::move(attributes));
            }
            childNames_.insert(job.itemName);
        }
        atElement = reader_.nextSibling();
    }
    if (!job.items.empty()) {
        if (childNames_.size() > 1) {
            reportMixedItems(parentName);
            PassObserver::current().jobDropped({parentName, job.itemName, {}}, "its elements have different names");
        } else {
            job.name = parentName;
            walk.jobs.push_back(std::move(job));
        }
    }
    reader_.restorePosition();
}

}  // namespace zav
