#include "Core/Predecessor.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "unit/Core/support/Phone.h"

namespace {

using State = zav::DaemonLock::State;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/Predecessor";
const std::string lockUi = "State.Provisioning.LockUI";

class PredecessorTest : public testing::Test {
 protected:
    tests::Phone phone_;
};

TEST_F(PredecessorTest, OnlyOneDaemonHoldsTheLock) {
    std::filesystem::remove_all("/var/volatile/provisioning");
    const zav::DaemonLock first;
    EXPECT_EQ(first.state(), State::held);
    EXPECT_EQ(zav::DaemonLock().state(), State::heldByAnother);
    EXPECT_TRUE(phone_.log.lines().empty());
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status("/var/volatile/provisioning").permissions(), perms::owner_all);
    EXPECT_EQ(std::filesystem::status("/var/volatile/provisioning/zavd:lock").permissions(),
              perms::owner_read | perms::owner_write);
}

TEST_F(PredecessorTest, LockIsFreeOnceItsHolderHasExited) {
    { const zav::DaemonLock first; }
    EXPECT_EQ(zav::DaemonLock().state(), State::held);
    const pid_t killed = fork();
    if (killed == 0) {
        const zav::DaemonLock lock;
        _exit(lock.state() == State::held ? 0 : 1);  // skips the destructor
    }
    int status = -1;
    ASSERT_EQ(waitpid(killed, &status, 0), killed);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(zav::DaemonLock().state(), State::held);
}

TEST_F(PredecessorTest, FailedLockIsLogged) {
    std::filesystem::remove_all("/var/volatile/provisioning");
    tests::writeFile("/var/volatile/provisioning", "no folder");
    EXPECT_EQ(zav::DaemonLock().state(), State::unavailable);
    std::filesystem::remove("/var/volatile/provisioning");
    EXPECT_EQ(phone_.log.lines(), Lines{fakes::warning(source,
                                                       "Cannot lock /var/volatile/provisioning/zavd:lock: Not a "
                                                       "directory; a second zavd would not be detected")});
}

TEST_F(PredecessorTest, UnlocksAScreenLeftLocked) {
    phone_.properties->put(lockUi, "1");
    zav::cleanUpAfterPredecessor(*phone_.properties);
    EXPECT_EQ(phone_.properties->writesTo(lockUi), std::vector<std::string>{"0"});
    EXPECT_EQ(phone_.log.lines(),
              Lines{fakes::warning(source, "The screen was left locked by a zavd that was killed, unlocking it")});
}

TEST_F(PredecessorTest, LeavesAnUnlockedScreenAlone) {
    for (const char* value : {"0", "", "true"}) {
        phone_.properties->put(lockUi, value);
        zav::cleanUpAfterPredecessor(*phone_.properties);
    }
    EXPECT_TRUE(phone_.properties->writes().empty());
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(PredecessorTest, IgnoresAnUnreadableScreenStateSilently) {
    phone_.properties->setOffline(true);
    zav::cleanUpAfterPredecessor(*phone_.properties);
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(PredecessorTest, FailedUnlockIsLogged) {
    phone_.properties->put(lockUi, "1");
    phone_.properties->failCall(fakes::FakeProperties::Call::set, 1);
    zav::cleanUpAfterPredecessor(*phone_.properties);
    EXPECT_TRUE(phone_.properties->writes().empty());
    ASSERT_EQ(phone_.log.lines().size(), 2U) << phone_.log.text();
    EXPECT_EQ(phone_.log.lines().back(),
              fakes::error(source,
                           "Could not clean up after an earlier zavd: Property 'State.Provisioning.LockUI': the "
                           "property service is offline"));
}

TEST_F(PredecessorTest, RemovesPartialDownloadsAndDecryptions) {
    const std::string folder = "/var/volatile/provisioning/";
    std::filesystem::create_directories(folder + "nvm");
    std::filesystem::create_directories(folder + "folder.tmp");
    for (const char* name :
         {"provisioning.xml", "provisioning.xml.tmp", "nvm/settings.xml.tmp", "a.tmp", ".tmp", ".settings.xml.part"}) {
        tests::writeFile(folder + name, "x");
    }
    zav::cleanUpAfterPredecessor(*phone_.properties);
    EXPECT_TRUE(tests::exists(folder + "provisioning.xml"));
    EXPECT_TRUE(tests::exists(folder + ".tmp"));
    EXPECT_TRUE(tests::exists(folder + "folder.tmp"));
    for (const char* name : {"provisioning.xml.tmp", "nvm/settings.xml.tmp", "a.tmp", ".settings.xml.part"}) {
        EXPECT_FALSE(tests::exists(folder + name)) << name;
    }
    for (const char* name : {"provisioning.xml.tmp", "nvm/settings.xml.tmp", "a.tmp"}) {
        EXPECT_TRUE(phone_.log.has(fakes::info(source, "Removed a half-decrypted file: " + folder + name))) << name;
    }
    EXPECT_EQ(phone_.log.linesOf(source).size(), 3U) << phone_.log.text();
}

}  // namespace
