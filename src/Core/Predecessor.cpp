#include "Core/Predecessor.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Core/Constants.h"
#include "Core/Utils.h"
#include "common/Descriptor.h"
#include "common/Filesystem.h"
#include "debug/Debug.h"
#include "http/PartialDownloads.h"

namespace zav {

namespace {

// Downloaded files never have a colon in their name.
constexpr const char* lockFile = "/var/volatile/provisioning/zavd:lock";

DaemonLock::State lock(common::Descriptor& file) {
    ::mkdir(provisioningDirectory.c_str(), 0700);
    file.reset(::open(lockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (file.get() >= 0 && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) return DaemonLock::State::held;
    if (file.get() >= 0 && errno == EWOULDBLOCK) return DaemonLock::State::heldByAnother;
    dbg::Debug::warning() << "Cannot lock " << lockFile << ": " << common::reasonOf(errno)
                          << "; a second zavd would not be detected" << std::endl;
    return DaemonLock::State::unavailable;
}

void unlockScreen(propertyapi::IPropertyApi& properties) {
    std::string state;
    try {
        state = properties.get(constants.provisioningLockUiKey);
    } catch (const propertyapi::PropertyException&) {
        return;
    }
    if (state != constants.uiLocked) return;
    dbg::Debug::warning() << "The screen was left locked by a zavd that was killed, unlocking it" << std::endl;
    properties.set(constants.provisioningLockUiKey, constants.uiUnlocked);
}

// openssl may still be writing one. They may hold decrypted settings.
void removeDecryptedLeftovers() {
    const std::string ending = ".tmp";
    for (const filesystem::Entry& entry : filesystem::entriesOf(provisioningDirectory, true)) {
        const std::string name = entry.path.substr(entry.path.rfind('/') + 1);
        if (name.size() <= ending.size() || name.compare(name.size() - ending.size(), ending.size(), ending) != 0) {
            continue;
        }
        if (::unlink(entry.path.c_str()) == 0) {
            dbg::Debug::info() << "Removed a half-decrypted file: " << entry.path << std::endl;
        }
    }
}

}  // namespace

DaemonLock::DaemonLock() : state_(lock(file_)) {}

void cleanUpAfterPredecessor(propertyapi::IPropertyApi& properties) {
    removePartialDownloads();
    try {
        removeDecryptedLeftovers();
        unlockScreen(properties);
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Could not clean up after an earlier zavd: " << e.what() << std::endl;
    }
}

}  // namespace zav
