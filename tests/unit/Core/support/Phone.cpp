#include "unit/Core/support/Phone.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "Core/GlobalConfig.h"
#include "Core/Pass.h"
#include "common/Execute.h"
#include "debug/Debug.h"
#include "xml/Library.h"

namespace tests {

namespace {

constexpr const char* keyFile = "/etc/zav.d/key";
constexpr const char* passPhrase = "the phone's pass phrase";

class XmlLibrary : public testing::Environment {
 public:
    void SetUp() override { library_.emplace(); }
    void TearDown() override { library_.reset(); }

 private:
    std::optional<zav::xml::Library> library_;
};

const testing::Environment* const xmlLibrary = testing::AddGlobalTestEnvironment(new XmlLibrary);

}  // namespace

fakes::FakeProperties::Values factoryValues() {
    return {
        {"NET.MAC.Address", "00:0A:0B:0C:0D:0E"},
        {"System.General.DeviceID", "kd4v"},
        {"System.General.SoftwareVersion", "V1.2.3"},
        {"System.Provision.SettingsVersion", "2016-01-01_00:00:00"},
        {"System.Provision.CustomVersion", "2016-02-01_00:00:00"},
        {"System.Provision.ProvisioningServer", ""},
        {"System.Provision.Period", "86400"},
        {"System.Provision.FactoryAuthUsername", "phone"},
        {"System.Provision.FactoryAuthPassword", "secret"},
        {"System.Debug.LevelMask.ZAV", "7"},
        {"State.Provisioning", ""},
        {"State.Provisioning.LockUI", "0"},
        {"State.Provisioning.HttpErrorCode", ""},
        {"State.Provisioning.OnBootUp", ""},
        {"State.FirmwareUpdate.TriggerAuto", ""},
        {"State.Security.Certificates.UpdateCABundle", ""},
    };
}

Phone::Phone()
    : properties(std::make_shared<fakes::FakeProperties>(factoryValues())),
      security(properties),
      curl(std::make_shared<zav::Curl>()) {
    dbg::Debug::setDebugLevelMask("7");
    zav::lastHttpCode = 0;
    zav::setCurrentProvisioningVersion({});
    zav::GlobalConfig::setProvisioningServer({});
    writeFile(keyFile, std::string(passPhrase) + "\n");
    std::filesystem::remove_all("/var/volatile/provisioning");
    std::filesystem::create_directories("/var/volatile/provisioning");
    log.forget();
}

Phone::~Phone() {
    dbg::Debug::setDebugLevelMask("7");
    if (testing::Test::HasFailure()) std::cout << "The log of the failed test:\n" << log.text() << std::flush;
}

std::string contentOf(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

bool exists(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

std::string encrypted(const std::string& content) { return encrypted(content, passPhrase); }

std::string encrypted(const std::string& content, const std::string& phrase) {
    writeFile("/tmp/plain", content);
    writeFile("/tmp/phrase", phrase + "\n");
    os::execute("openssl enc -aes-128-cbc -in /tmp/plain -out /tmp/encrypted -pass file:/tmp/phrase",
                std::chrono::seconds(30));
    return contentOf("/tmp/encrypted");
}

std::string provisioningFile(const std::string& root, const std::string& version, const std::string& inside) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + root + " version=\"" + version +
           "\" productID=\"kd4v\">\n" + inside + "\n</" + root + ">\n";
}

}  // namespace tests
