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
    void queryWatchdog() { bus_->deliver("watchdog/prov-client", "Are you alive?", ""); }
    void queryAutoReboot() {
        bus_->deliver("auto-reboot/prov-client", "State.System.QA.AutomaticReboot.IsBusyQuery", "");
    }
    /// The dispatcher's log lines except "Get message".
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

TEST_F(DispatcherTest, StartFailsIfTheBusRefuses) {
    for (const char* call : {"subscribe prop-service-state/#", "subscribe auto-reboot", "connect"}) {
        phone_.log.forget();
        bus_->failOn(call, "no broker");
        try {
            dispatcher_->startListening();
            FAIL() << "no exception";
        } catch (const ipc::IPCException&) {
            FAIL() << "the bus exception was not converted";
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

TEST_F(DispatcherTest, LogsAFailedDisconnect) {
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
    EXPECT_TRUE(bus_->calls().empty()) << "the bus client reconnects by itself";
}

TEST_F(DispatcherTest, MessagesAreOnlyLoggedBeforeHandlingStarts) {
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

TEST_F(DispatcherTest, MessageWithoutAHandlerIsLoggedInFull) {
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

TEST_F(DispatcherTest, SurvivesHostilePayloads) {
    begin();
    for (const std::string& content :
         {std::string(100000, '['), std::string("{\"param\":\"") + std::string(500000, 'x') + "\"}",
          std::string("{\"param\":\0\"x\"}", 14), std::string("\xff\xfe{\"param\""),
          std::string(R"({"param":"State.Provisioning","value":{"request":1}})"),
          std::string(R"({"param":"System.Provision.Period","value":["600"]})")}) {
        EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", content));
    }
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 0U);
    queryWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
}

TEST_F(DispatcherTest, PeriodStartsTheTimer) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "7200");
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{7200});
    EXPECT_EQ(answers(), Lines{info(source, "Timer setting done")});
}

TEST_F(DispatcherTest, InvalidPeriodLeavesTheTimerAlone) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "often");
    timer_.fails = true;
    bus_->deliver("prop-service-system/x", "System.Provision.Period", "7200");
    EXPECT_TRUE(timer_.periods.empty());
    EXPECT_EQ(answers(), (Lines{error(source, "Wrong time format: stoi"),
                                error(source, "Wrong time format: cannot start a thread")}));
}

TEST_F(DispatcherTest, NumericValueIsReadAsText) {
    begin();
    bus_->deliver("prop-service-system/x", R"({"param":"System.Provision.Period","value":900})");
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{900});
}

TEST_F(DispatcherTest, AppliesTheLevelMask) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Debug.LevelMask.ZAV", "1");
    phone_.log.forget();
    bus_->deliver("prop-service-system/x", "unknown", "");
    EXPECT_TRUE(phone_.log.lines().empty()) << phone_.log.text();
}

TEST_F(DispatcherTest, StoresTheServer) {
    begin();
    bus_->deliver("prop-service-system/x", "System.Provision.ProvisioningServer", "http://new/");
    EXPECT_EQ(zav::GlobalConfig::provisioningServer(), "http://new/");
    EXPECT_TRUE(answers().empty());
}

TEST_F(DispatcherTest, ReloadsCertificatesAndResetsTheTrigger) {
    begin();
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1");
    EXPECT_EQ(security_.calls(), (std::vector<std::string>{"reload", "reload", "notify"}))
        << "the first call is from begin()";
    EXPECT_EQ(phone_.properties->writes(),
              (std::vector<fakes::PropertyWrite>{{"State.Security.Certificates.UpdateCABundle", "", ""}}));
}

TEST_F(DispatcherTest, ResetsTheCertificateTriggerLast) {
    begin();
    std::vector<std::string> before;
    phone_.properties->onWrite([&](const auto&) { before = security_.calls(); });
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1");
    EXPECT_EQ(before, (std::vector<std::string>{"reload", "reload", "notify"})) << "the first call is from begin()";
    phone_.properties->onWrite({});
}

TEST_F(DispatcherTest, EmptyCertificateTriggerDoesNothing) {
    begin();
    bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "");
    EXPECT_EQ(security_.calls().size(), 1U);
    EXPECT_TRUE(phone_.properties->writes().empty());
    EXPECT_TRUE(answers().empty());
}

TEST_F(DispatcherTest, LogsAnExceptionOfAHandler) {
    begin();
    phone_.properties->setOffline(true);
    EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1"));
    EXPECT_EQ(answers(), Lines{error(source,
                                     "Handling message failed: Property "
                                     "'State.Security.Certificates.UpdateCABundle': the property service is "
                                     "offline")});
}

TEST_F(DispatcherTest, LogsANonStandardExceptionOfAHandler) {
    begin();
    security_.throws = true;
    EXPECT_NO_THROW(bus_->deliver("prop-service-state/x", "State.Security.Certificates.UpdateCABundle", "1"));
    EXPECT_EQ(answers(), Lines{error(source, "Handling message failed")});
    EXPECT_TRUE(phone_.properties->writes().empty()) << "the trigger must not be reset";
    queryWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
}

TEST_F(DispatcherTest, DropsRequestsBeforeTheNetworkIsReady) {
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
    holdPass()->open();
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

TEST_F(DispatcherTest, LogsAnInvalidServerUrlAndTheNextRequestWorks) {
    begin();
    phone_.properties->put("System.Provision.ProvisioningServer", "http://bad server/");
    request("request");
    EXPECT_EQ(answers(), Lines{error(source, "Handling message failed: Url is incorrect, please verify")});
    queryAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U) << "a pass that did not start counts as unfinished";
    queryWatchdog();
    EXPECT_EQ(bus_->count(watchdogReply), 1U) << "and there is nothing to wait for";
    holdPass()->open();
    request("request");
    EXPECT_TRUE(waitForResults(1));
}

TEST_F(DispatcherTest, AnswersOnlyTheWatchdogWhenNoPassRuns) {
    begin();
    queryWatchdog();
    queryAutoReboot();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    EXPECT_EQ(bus_->count(busyReply), 0U);
}

TEST_F(DispatcherTest, AnswersAutoRebootAsBusyDuringAPass) {
    begin();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    queryAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U);
    gate->open();
    EXPECT_TRUE(waitForResults(1));
    queryAutoReboot();
    EXPECT_EQ(bus_->count(busyReply), 1U);
}

TEST_F(DispatcherTest, LogsFailedReplies) {
    begin();
    bus_->failOn("publish", "away");
    queryWatchdog();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    queryAutoReboot();
    EXPECT_EQ(answers(), (Lines{error(source, "Cannot send response to watchdog: away"),
                                error(source, "Handling Autoreboot query failed: away")}));
    gate->open();
}

TEST_F(DispatcherTest, HangingPassDelaysTheWatchdogReplyUntilProgress) {
    begin();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    queryWatchdog();  // answered at once: the start of the pass is progress
    ASSERT_EQ(bus_->count(watchdogReply), 1U);

    std::thread delivery([this] { queryWatchdog(); });
    ASSERT_TRUE(phone_.log.waitFor(info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress"), 2));
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    gate->open();
    EXPECT_TRUE(bus_->waitFor(watchdogReply, 2));
    delivery.join();
}

TEST_F(DispatcherTest, StopReleasesAPendingWatchdogQueryWithoutAReply) {
    begin();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    queryWatchdog();
    std::thread delivery([this] { queryWatchdog(); });
    ASSERT_TRUE(phone_.log.waitFor(info("Core/ProvisioningWatchdog/ProgressReporter", "Waiting for progress"), 2));
    dispatcher_->stopListening();
    delivery.join();
    EXPECT_EQ(bus_->count(watchdogReply), 1U);
    gate->open();
    dispatcher_.reset();
    EXPECT_EQ(phone_.properties->value("State.Provisioning"), "fail") << "the running pass must finish";
    EXPECT_EQ(phone_.properties->value("State.Provisioning.LockUI"), "0");
}

TEST_F(DispatcherTest, StopDropsAQueuedRequest) {
    begin();
    const auto gate = holdPass();
    request("request");
    ASSERT_TRUE(gate->waitUntilReached());
    std::thread delivery([this] { request("request"); });
    ASSERT_TRUE(phone_.log.waitFor(warning(workerSource, "Previous provisioning is not finished yet. Waiting...")));
    dispatcher_->stopListening();
    delivery.join();  // the first pass still hangs
    gate->open();
    dispatcher_.reset();
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 1U);
}

TEST_F(DispatcherTest, BootUpPassRunsOnceAndWritesDone) {
    dispatcher_->startListening();
    dispatcher_->startHandling();
    holdPass()->open();
    phone_.properties->put("State.Provisioning.OnBootUp", "");
    phone_.log.forget();
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.properties->value("State.Provisioning.OnBootUp"), "done");
    EXPECT_EQ(phone_.log.linesOf(source),
              Lines{info(source, "Do provisioning on boot up 'State.Provisioning.OnBootUp'''")});
    EXPECT_EQ(phone_.log.count(info(workerSource, "Start provisioning thread")), 1U);
    EXPECT_EQ(security_.calls().front(), "reload");
}

TEST_F(DispatcherTest, SkipsACompletedBootUpPass) {
    phone_.properties->put("State.Provisioning.OnBootUp", "done");
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "Provisioning on boot up already done, skipping")});
    EXPECT_EQ(security_.calls(), std::vector<std::string>{"reload"});
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(DispatcherTest, LogsAnUnreadableBootUpState) {
    phone_.properties->failKey("State.Provisioning.OnBootUp");
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.log.lines(), Lines{error(source,
                                              "PropertyApi exception: Property "
                                              "'State.Provisioning.OnBootUp': the property service is offline")});
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(DispatcherTest, NoBootUpPassWithoutTheBootUpState) {
    fakes::FakeProperties::Values values = tests::factoryValues();
    values.erase("State.Provisioning.OnBootUp");
    const auto properties = std::make_shared<fakes::FakeProperties>(values);
    zav::Dispatcher dispatcher(bus_, properties, timer_, std::make_shared<zav::Curl>(), security_);
    dispatcher.enableProvisioning();
    EXPECT_TRUE(phone_.log.lines().empty()) << phone_.log.text();
    EXPECT_TRUE(security_.calls().empty());
}

TEST_F(DispatcherTest, StopDuringTheBootUpPassDoesNotWriteDone) {
    const auto gate = holdPass();
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
