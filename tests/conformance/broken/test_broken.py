"""Libraries that break one promise each: the check of that promise notices it.

test_broken.py SANDBOX... -- PROGRAM OPTIONS...: PROGRAM is zav-platform-tests with the broken libraries; each run has a
sandbox of its own, so that four can run at a time.
"""

import concurrent.futures
import os
import subprocess
import sys
import unittest

COMMAND = sys.argv[1:]
del sys.argv[1:]

# The broken promise, and the check that must fail.
PROMISES = [
    ("losses are reported", "Reconnection.ReportsTheLossOncePerCallbackObject"),
    ("losses are reported once", "Reconnection.ReportsTheLossOncePerCallbackObject"),
    ("callbacks run concurrently", "Client.BlockedCallbackDelaysNothingElse"),
    ("messages keep their order", "Callbacks.MessagesOfASubscriptionArriveInOrderOnOneThread"),
    ("messages arrive once", "Client.DeliversOnceForEachOfOverlappingSubscriptions"),
    ("acknowledgements are reported", "Client.DeliversToASubscriptionMadeBeforeTheConnection"),
    ("connect throws without a bus", "Client.ConnectThrowsWithoutABroker"),
    ("disconnect ends deliveries", "Client.DisconnectWaitsForARunningCallback"),
    ("wildcards match all levels below", "Client/Wildcards.MatchLevels/Row5"),
    ("messages are kept while the bus is away", "Reconnection.SendsMessagesPublishedMeanwhileOnceAndInOrder"),
    ("quality 0 is dropped while the bus is away", "Reconnection.DropsQualityZeroPublishedMeanwhile"),
    ("messages sent soon need no other", "Client.MessagesSentSoonNeedNoOtherAndKeepTheirOrder"),
    ("payloads may have any bytes", "Client.CarriesAnyBytesUpToAMebibyte"),
    ("each request gets its own answer", "Request.ManyThreadsEachGetTheirOwnAnswer"),
    ("a begun request gets its own answer", "Request.SeveralMayBeBegunBeforeTheFirstResponseIsAwaited"),
    ("a begun request has its time-out", "Request.ABegunOneTimesOutWithoutAnAnswer"),
    ("a lost service has its exception", "Outage.FailsARequestInFlightEvenIfTheServiceIsBackAtOnce"),
    ("a lost connection has its exception", "Outage.DeathOfTheBusInterruptsARequestInFlight"),
    ("an offline service has its exception", "Request.FailsAtOnceWhenTheServiceIsOfflineAndWorksWhenItIsBack"),
    ("a request is sent once", "Reconnection.DoesNotResendARequest"),
    ("a wait has its limit", "Outage.WaitEndsWhenTheServiceIsBack"),
    ("late answers are counted", "Answers.CountIncludesLateAnswers"),
    ("requests can be limited", "LimitedRequests.LimitAppliesInFlightAndLater"),
    ("a service sends in the order of its list", "Service.PublishesChangesInTheOrderOfTheRequests"),
    ("a service announces itself", "Service.PublishesOnlineAndOffline"),
    ("a service publishes offline when it stops", "Service.PublishesOnlineAndOffline"),
    ("transient clients may share a name", "Client.TransientClientsMayShareAName"),
    ("a service reports that it is alive", "ServiceEvents.AliveIsReportedByTheThreadThatHandlesRequests"),
    ("a set is made once", "Changes.AreInTheOrderOfTheSets"),
    ("a change has its source", "Changes.HaveTheKeyTheValueAndTheWriter"),
    ("keys read together keep their order", "Properties.SeveralAreReadInOneCall"),
    ("lists are sorted", "Properties.ListsAreCompleteSortedPages"),
    ("lists are complete", "Properties.ListsAreCompleteSortedPages"),
    ("shutdown limits calls", "PropertyOutage.ShutdownLimitsCallsToTwoSeconds"),
    ("calls wait under RecoveryScope", "Recovery.CallsSurviveARestartOfTheService"),
    ("an unknown key has its exception", "PropertyErrors.UnknownKeysAreNotFound"),
    ("an invalid value has its exception", "PropertyErrors.RefusedValueIsInvalidAndNotWritten"),
    ("calls fail at once while the service is offline", "PropertyOutage.CallsFailAtOnceWhileTheServiceIsOffline"),
    ("a time-out has its exception", "PropertyOutage.ShutdownLimitsCallsToTwoSeconds"),
]


def run(promise, checks, patience):
    """(exit status, what was said)"""
    done = subprocess.run([*COMMAND, "--patience", str(patience), "--only", ":".join(checks)],
                          env={**os.environ, "ZAV_BROKEN_PROMISE": promise}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", check=False)
    return done.returncode, done.stdout


class BrokenLibraries(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        checks = sorted({check for _, check in PROMISES})
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            kept = pool.submit(run, "", checks, 30)
            broken = {promise: pool.submit(run, promise, [check], 2) for promise, check in PROMISES}
        cls.kept, cls.broken = kept.result(), {promise: result.result() for promise, result in broken.items()}

    def test_each_broken_promise_fails_its_check(self):
        for promise, check in PROMISES:
            with self.subTest(promise):
                status, said = self.broken[promise]
                self.assertEqual(status, 1, said)
                self.assertIn(f"broken: {check}, promised in ", said)

    def test_the_same_checks_pass_if_all_promises_are_kept(self):
        status, said = self.kept
        self.assertEqual(status, 0, said)
        self.assertIn(f"{len({check for _, check in PROMISES})} promises kept", said)


if __name__ == "__main__":
    unittest.main(verbosity=2)
