#include "Core/Dispatcher.h"

#include <gtest/gtest.h>

#include <thread>

#include "Core/GlobalConfig.h"
#include "ipc/IPCException.h"
#include "unit/Core/support/DispatcherFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/Dispatcher";
const std::string workerSource = "Core/ProvisioningWatchdog/ProvisioningWorker";
const std::string watchdogReply = "publish prov-client/watchdog {\"param\":\"Ok\"} 1";
const std::string busyReply =
    "publish prov-client/auto-reboot {\"param\":\"State.System.QA.AutomaticReboot.IsBusy\", \"value\":\"1\"} 1";

class DispatcherTest : public tests::DispatcherFixture {
 protected:
    void askWatchdog() { bus_->deliver("watchdog/prov-client", "Are you alive?", ""); }
    void askAutoReboot() {
        bus_->deliver("auto-reboot/prov-client", "State.System.QA.AutomaticReboot.IsBusyQuery", "");
    }
    /// The lines of the dispatcher without "Get message".
    Lines answers() {
        Lines chosen;
        for (const auto& line : phone_.log.linesOf(source)) {
            if (line.text.find("Get message") != 0) chosen.push_back(line);
        }
        return chosen;
    }
};

TEST_F(DispatcherTest, SubscribesAndThenConnects) {
    dispatcher_->startListening();
    EXPECT_EQ(bus_->calls(),
              (std::vector<std::string>{"subscribe prop-service-state/#", "subscribe prop-service-system/#",
                                        "subscribe watchdog/prov-client", "subscribe auto-reboot/prov-client",
                                        "connect localhost"}));
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "run IPC listening")});
}

TEST_F(DispatcherTest, ABusThatRefusesEndsTheStart) {
    for (const char* call : {"subscribe prop-service-state/#", "subscribe auto-reboot", "connect"}) {
        phone_.log.forget();
        bus_->failOn(call, "no broker");
        try {
            dispatcher_->startListening();
            FAIL() << "no exception";
        } catch (const ipc::IPCException&) {
            FAIL() << "still the bus's own exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "no broker");
        }
        EXPECT_EQ(phone_.log.lines(), (Lines{info(source, "run IPC listening"), error(source, "IPC error no broker")}));
    }
}

TEST_F(DispatcherTest, StopListeningDisconnects) {
    begin();
    dispatcher_->stopListening();
    EXPECT_EQ(bus_->calls().back(), "disconnect");
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "IPC listening terminated")});
}

TEST_F(DispatcherTest, ADisconnectThatFailsIsLogged) {
    begin();
    bus_->failOn("disconnect", "not connected");
    dispatcher_->stopListening();
    EXPECT_EQ(phone_.log.lines(), (Lines{warning(source, "Cannot disconnect IPC not connected"),
                                         info(source, "IPC listening terminated")}));
}

TEST_F(DispatcherTest, CallbacksAreLogged) {
    dispatcher_->connectionLost("the cable");
    dispatcher_->deliveryComplete("prov-client/watchdog");
    EXPECT_EQ(phone_.log.lines(), (Lines{warning(source, "IPC connection lost: the cable"),
                                         info(source, "Delivered message with topic: prov-client/watchdog")}));
    EXPECT_TRUE(bus_->calls().empty()) << "reconnecting is the bus client's business";
}

TEST_F(DispatcherTest, BeforeHandlingMessagesAreOnlyLogged) {
    dispatcher_->startListening();
    phone_.log.forget();
    for (const char* key : {"State.Provisioning", "Are you alive?", "System.Provision.Period", "unknown"}) {
        bus_->deliver("prop-service-state/x", key, "request");
    }
    for (const auto& line : phone_.log.lines()) {
        EXPECT_EQ(line.text.find("Get message - topic: prop-service-state/x content: {"), 0U) << line;
    }
    EXPECT_EQ(phone_.log.lines().size(), 4U);
    EXPECT_TRUE(timer_.periods.empty());
    phone_.log.forget();
    dispatcher_->startHandling();
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "start handling IPC messages")});
}

TEST_F(DispatcherTest, AMessageWithoutAHandlerIsLoggedWhole) {
    begin();
    for (const char* content :
         {R"({"param":"Audio.Volume","value":"5"})", R"({"value":"x"})", "{}", "[]", "", "request",
          "{\"param\":", R"(["param","State.Provisioning"])", R"({"param":{"a":1},"value":"x"})", R"({"param":["a"]})",
          "42", "null", R"("State.Provisioning")", R"({"param":"System.Provision.Period","value":"900",})",
          "\xef\xbb\xbf{\"param\":\"System.Provision.Period\",\"value\":\"900\"}"}) {
        phone_.log.forget();
        bus_->deliver("prop-service-system/x", content);
        EXPECT_EQ(phone_.log.lines(),
                  (Lines{info(source, std::string("Get message - topic: prop-service-system/x content: ") + content),
                         info(source, std::string("No handler for message: ") + content)}));
    }
}

TEST_F(DispatcherTest, HostilePayloadsAreSurvived) {
    begin();
    for (const std::string& content :
         {std::string(100000, '['), std::string("{\"param\":\"") + std::string(500000, 'x') + "\"}",
          std::string("{\"param\":\0\"x\"}", 14), std::string("\xff\xfe{\"param\""),
          std::string(R"({"param":"State.Provisioning","value":{"request":1}})"),
          std::string(R"({"param":"System.Provision.Period","value":["600"]})")}) {
        EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", content));
    }
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 0U);
    askWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
}

TEST_F(DispatcherTest, APeriodStartsTheTimer) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "7200");
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{7200});
    EXPECT_EQ(answers(), Lines{info(source, "Timer setting done")});
}

TEST_F(DispatcherTest, AWrongPeriodLeavesTheTimerAlone) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "often");
    timer_.fails = true;
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "7200");
    EXPECT_TRUE(timer_.periods.empty());
    EXPECT_EQ(answers(), (Lines{error(source, "Wrong time format: stoi"),
                                error(source, "Wrong time format: no thread to be had")}));
}

TEST_F(DispatcherTest, ANumberAsValueReadsAsText) {
    begin();
    bus_->deliver("prop-service-system/x", R"({"param":"System.Provision.Period","value":900})");
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{900});
}

TEST_F(DispatcherTest, TheLevelMaskIsApplied) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Debug.LevelMask.ZAV", "1");
    phone_.log.forget();
    bus_->deliver("prop-service-system/x", "unknown", "");
    EXPECT_TRUE(phone_.log.lines().empty()) << phone_.log.text();
}

TEST_F(DispatcherTest, TheServerIsStored) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.ProvisioningServer", "http://new/");
    EXPECT_EQ(zav::GlobalConfig::provisioningServer(), "http://new/");
    EXPECT_TRUE(answers().empty());
}

TEST_F(DispatcherTest, CertificatesAreReloadedAndTheTriggerReset) {
    begin();
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1");
    EXPECT_EQ(security_.calls(), (std::vector<std::string>{"reload", "reload", "notify"})) << "the first is begin's";
    EXPECT_EQ(phone_.properties->writes(),
              (std::vector<fakes::PropertyWrite>{{"State.Security.Certificates.UpdateCABundle", "", ""}}));
}

TEST_F(DispatcherTest, TheCertificateTriggerIsResetLast) {
    begin();
    std::vector<std::string> before;
    phone_.properties->onWrite([&](const auto&) { before = security_.calls(); });
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1");
    EXPECT_EQ(before, (std::vector<std::string>{"reload", "reload", "notify"})) << "the first is begin's";
    phone_.properties->onWrite({});
}

TEST_F(DispatcherTest, AnEmptyCertificateTriggerDoesNothing) {
    begin();
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "");
    EXPECT_EQ(security_.calls().size(), 1U);
    EXPECT_TRUE(phone_.properties->writes().empty());
    EXPECT_TRUE(answers().empty());
}

TEST_F(DispatcherTest, AHandlerThatFailsIsLogged) {
    begin();
    phone_.properties->setOffline(true);
    EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1"));
    EXPECT_EQ(answers(), Lines{error(source,
                                     "Handling message failed: Property "
                                     "'State.Security.Certificates.UpdateCABundle': the property service is "
                                     "offline")});
}

TEST_F(DispatcherTest, AHandlerThatThrowsAnythingElseIsLoggedToo) {
    begin();
    security_.throws = true;
    EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1"));
    EXPECT_EQ(answers(), Lines{error(source, "Handling message failed")});
    EXPECT_TRUE(phone_.properties->writes().empty()) << "the trigger stays";
    askWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
}

TEST_F(DispatcherTest, RequestsBeforeTheNetworkIsReadyAreDropped) {
    dispatcher_->startListening();
    dispatcher_->startHandling();
    phone_.log.forget();
    request("request");
    request("success");
    bus_->deliver("prop-service-state/x", "State.FirmwareUpdate.TriggerAuto", "request");
    const auto line = warning(source, "Handling provisioning requests not enabled yet");
    EXPECT_EQ(answers(), (Lines{line, line, line}));
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 0U);
}

TEST_F(DispatcherTest, EveryValueThatContainsRequestStartsAPass) {
    begin();
    holdThePass()->open();
    std::size_t passes = 0;
    for (const char* value : {"request", "request-check-sync", "a request of mine"}) {
        request(value);
        EXPECT_TRUE(waitForResults(++passes)) << value;
    }
    bus_->deliver("prop-service-state/x", "State.FirmwareUpdate.TriggerAuto", "request");
    EXPECT_TRUE(waitForResults(++passes));
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 4U);
}

TEST_F(DispatcherTest, OtherValuesAreIgnoredSilently) {
    begin();
    for (const char* value : {"", "success", "fail", "Request", "done", "reques"}) request(value);
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 0U);
}

TEST_F(DispatcherTest, AServerThatIsNoUrlIsLoggedAndTheNextRequestWorks) {
    begin();
    phone_.properties->put("System.Provision.ProvisioningServer", "http://bad server/");
    request("request");
    EXPECT_EQ(answers(), Lines{error(source, "Handling message failed: Url is incorrect, please verify")});
    askAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U) << "the pass that never ran counts as unfinished";
    askWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U) << "and there is nothing to wait for";
    holdThePass()->open();
    request("request");
    EXPECT_TRUE(waitForResults(1));
}

TEST_F(DispatcherTest, WithoutAPassTheWatchdogIsAnsweredAtOnceAndAutoRebootNotAtAll) {
    begin();
    askWatchdog();
    askAutoReboot();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    EXPECT_EQ(bus_->count(busyReply), 0U);
}

TEST_F(DispatcherTest, WhileAPassRunsAutoRebootHearsThatThePhoneIsBusy) {
    begin();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    askAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U);
    gate->open();
    EXPECT_TRUE(waitForResults(1));
    askAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U);
}

TEST_F(DispatcherTest, RepliesThatCannotBeSentAreLogged) {
    begin();
    bus_->failOn("publish", "away");
    askWatchdog();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    askAutoReboot();
    EXPECT_EQ(answers(), (Lines{error(source, "Cannot send response to watchdog: away"),
                                error(source, "Handling Autoreboot query failed: away")}));
    gate->open();
}

TEST_F(DispatcherTest, AHangingPassHoldsTheWatchdogsReplyUntilItMoves) {
    begin();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    askWatchdog();  // the start of the pass was progress
    ASSERT_EQ(bus_->count(watchdogReply), 1U);

    std::thread delivery([this] { askWatchdog(); });
    ASSERT_TRUE(phone_.log.waitFor(info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress"), 2));
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    gate->open();
    EXPECT_TRUE(bus_->waitFor(watchdogReply, 2));
    delivery.join();
}

TEST_F(DispatcherTest, StopReleasesAHeldWatchdogQueryWithoutAReply) {
    begin();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    askWatchdog();
    std::thread delivery([this] { askWatchdog(); });
    ASSERT_TRUE(phone_.log.waitFor(info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress"), 2));
    dispatcher_->stopListening();
    delivery.join();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    gate->open();
    dispatcher_.reset();
    EXPECT_EQ(phone_.properties->value("State.Provisioning"), "fail") << "the pass in hand went on to its end";
    EXPECT_EQ(phone_.properties->value("State.Provisioning.LockUI"), "0");
}

TEST_F(DispatcherTest, StopDropsARequestThatWaitsBehindAPass) {
    begin();
    const auto gate = holdThePass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    std::thread delivery([this] { request("request"); });
    ASSERT_TRUE(phone_.log.waitFor(warning(workerSource, "Previous provisioning is not finished yet. Waiting...")));
    dispatcher_->stopListening();
    delivery.join();  // while the first pass still hangs
    gate->open();
    dispatcher_.reset();
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 1U);
}

TEST_F(DispatcherTest, TheBootUpPassRunsOnceAndSaysDone) {
    dispatcher_->startListening();
    dispatcher_->startHandling();
    holdThePass()->open();
    phone_.properties->put("State.Provisioning.OnBootUp", "");
    phone_.log.forget();
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.properties->value("State.Provisioning.OnBootUp"), "done");
    EXPECT_EQ(phone_.log.linesOf(source),
              Lines{info(source, "Do provisioning on boot up 'State.Provisioning.OnBootUp'''")});
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 1U);
    EXPECT_EQ(security_.calls().front(), "reload");
}

TEST_F(DispatcherTest, ABootUpPassThatWasDoneIsSkipped) {
    phone_.properties->put("State.Provisioning.OnBootUp", "done");
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "Provisioning on boot up already done, skipping")});
    EXPECT_EQ(security_.calls(), std::vector<std::string>{"reload"});
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(DispatcherTest, BootUpFailuresOfThePropertyService) {
    phone_.properties->failKey("State.Provisioning.OnBootUp");
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.log.lines(), Lines{error(source,
                                              "PropertyApi exception: Property "
                                              "'State.Provisioning.OnBootUp': the property service is offline")});
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(DispatcherTest, APhoneWithoutTheBootUpStateHasNoBootUpPass) {
    fakes::FakeProperties::Values values = tests::factoryValues();
    values.erase("State.Provisioning.OnBootUp");
    const auto properties = std::make_shared<fakes::FakeProperties>(values);
    zav::Dispatcher dispatcher(bus_, properties, timer_, std::make_shared<zav::Curl>(), security_);
    dispatcher.enableProvisioning();
    EXPECT_TRUE(phone_.log.lines().empty()) << phone_.log.text();
    EXPECT_TRUE(security_.calls().empty());
}

TEST_F(DispatcherTest, StopDuringTheBootUpPassWritesNoDone) {
    const auto gate = holdThePass();
    std::thread readiness([this] { dispatcher_->enableProvisioning(); });
    ASSERT_TRUE(gate->waitUntilReached());
    dispatcher_->stopListening();
    readiness.join();
    EXPECT_EQ(phone_.properties->value("State.Provisioning.OnBootUp"), "");
    gate->open();
    dispatcher_.reset();
    EXPECT_EQ(phone_.properties->value("State.Provisioning.OnBootUp"), "");
}

}  // namespace
