#include "Core/GlobalConfig.h"

#include <cstddef>
#include <thread>
#include <vector>

#include "Core/Constants.h"
#include "common/Quote.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"

namespace zav {

namespace {

struct Values {
    std::string softwareVersion;
    std::string settingsVersion;
    std::string customVersion;
    std::string provisioningServer;
};

class SharedValues {
 public:
    // A function, because the compiler does not check pointers to members.
    Values& all() REQUIRES(mutex) { return all_; }

    common::Mutex mutex;

 private:
    Values all_ GUARDED_BY(mutex);
};

SharedValues& values() {
    static SharedValues instance;
    return instance;
}

std::string copyOut(std::string Values::*member) {
    const common::LockGuard lock(values().mutex);
    return values().all().*member;
}

void assign(std::string Values::*member, const std::string& value) {
    const common::LockGuard lock(values().mutex);
    values().all().*member = value;
}

/// What `read` returns. Logs an error and returns an empty string if it throws.
template <typename Read>
std::string valueOf(const std::string& key, const Read& read) {
    try {
        return read();
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Error getting value for key " << quote(key) << " exception: " << e.what() << std::endl;
        return {};
    }
}

}  // namespace

std::string GlobalConfig::getValue(const Properties& properties, const std::string& key) {
    return valueOf(key, [&] { return properties->get(key); });
}

bool GlobalConfig::hasAuthCredentials(const Properties& properties) {
    return !getValue(properties, constants.factoryAuthUsernameKey).empty() &&
           !getValue(properties, constants.factoryAuthPasswordKey).empty();
}

void GlobalConfig::waitForPreconditions(const Properties& properties, unsigned maxWaits, std::chrono::seconds pause) {
    dbg::Debug::info() << "Waiting for factory auth user name and password" << std::endl;
    bool met = false;
    for (unsigned waits = 0;; ++waits) {
        met = hasAuthCredentials(properties);
        if (met) break;
        if (waits >= maxWaits) {
            dbg::Debug::info() << "Cannot read auth user name or password" << std::endl;
            break;
        }
        dbg::Debug::info() << "Waiting for auth user name and password" << std::endl;
        std::this_thread::sleep_for(pause);
    }
    dbg::Debug::info() << (met ? "Preconditions are met" : "Preconditions are not met") << std::endl;
}

void GlobalConfig::readProperties(const Properties& properties) {
    dbg::Debug::info() << "Reading properties to GlobalConfig" << std::endl;
    struct Target {
        const std::string& key;
        std::string Values::*member;
    };
    const std::vector<Target> targets{{constants.softwareVersionKey, &Values::softwareVersion},
                                      {constants.settingsVersionKey, &Values::settingsVersion},
                                      {constants.customVersionKey, &Values::customVersion},
                                      {constants.provisioningServerKey, &Values::provisioningServer},
                                      // Applied only when a change arrives on the bus.
                                      {constants.debugLevelMaskKey, nullptr}};
    std::vector<std::string> keys;
    keys.reserve(targets.size());
    for (const Target& target : targets) keys.push_back(target.key);
    const std::vector<propertyapi::Reading> readings = properties->getEach(keys);
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const std::string value = valueOf(keys[i], [&] { return readings.at(i).value(); });
        if (targets[i].member != nullptr) assign(targets[i].member, value);
    }
}

std::string GlobalConfig::softwareVersion() { return copyOut(&Values::softwareVersion); }
std::string GlobalConfig::settingsVersion() { return copyOut(&Values::settingsVersion); }
std::string GlobalConfig::customVersion() { return copyOut(&Values::customVersion); }
std::string GlobalConfig::provisioningServer() { return copyOut(&Values::provisioningServer); }
void GlobalConfig::setProvisioningServer(const std::string& url) { assign(&Values::provisioningServer, url); }

}  // namespace zav
