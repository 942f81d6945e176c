// Requests without a bus: the tests report events from inside `send`, in place of a connection.
#include "Requests.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "BusFixtures.h"
#include "ipc/IPCException.h"

namespace {

using ipc::Awaited;
using ipc::Requests;
using std::chrono::milliseconds;
const std::string status = "test-service/status";

class RequestsTest : public testing::Test {
 protected:
    /// Simulates a connection on which the service is online.
    void serve() {
        requests.watch(status);
        requests.connecting();
        requests.connected();
        requests.presenceArrived(status, "online");
    }

    std::string ask(const Requests::Send& send, milliseconds timeout = bustest::patience) {
        return requests.ask(status, timeout, send);
    }

    Requests requests;
};

TEST_F(RequestsTest, CorrelationDataSelectsTheAnswer) {
    serve();
    std::vector<std::string> sent;
    const auto answered = [&](const std::string& correlation) {
        requests.responseArrived("not ours", "wrong");
        requests.responseArrived(std::string(8, '\0'), "wrong");
        for (const std::string& earlier : sent) requests.responseArrived(earlier, "late");
        sent.push_back(correlation);
        requests.responseArrived(correlation, "answer " + std::to_string(sent.size()));
        requests.responseArrived(correlation, "a second one");
        return true;
    };
    EXPECT_EQ(ask(answered), "answer 1");
    EXPECT_EQ(ask(answered), "answer 2");
    EXPECT_EQ(requests.responses(), 5U) << "duplicate and late answers count, foreign ones do not";
}

TEST_F(RequestsTest, FailsAtOnceWithoutItsService) {
    const auto never = [](const std::string&) -> bool { throw std::logic_error("it was sent"); };
    EXPECT_THROW(ask(never), ipc::IPCException) << "not watched";
    requests.watch(status);
    EXPECT_THROW(ask(never), ipc::IPCOfflineException) << "never connected";
    requests.connectFailed();
    EXPECT_THROW(ask(never), ipc::IPCOfflineException) << "no connection to wait for";
    requests.connected();
    requests.presenceArrived(status, "offline");
    EXPECT_THROW(ask(never), ipc::IPCOfflineException);
}

TEST_F(RequestsTest, TimesOut) {
    serve();
    EXPECT_THROW(ask([](const std::string&) { return true; }, milliseconds(5)), ipc::IPCTimeoutException);
}

TEST_F(RequestsTest, ConnectionLossInterruptsARequest) {
    serve();
    const auto cut = [&](const std::string&) {
        requests.connectionLost();
        requests.connected();
        requests.presenceArrived(status, "online");
        return true;
    };
    EXPECT_THROW(ask(cut), ipc::IPCInterruptedException);
}

TEST_F(RequestsTest, FailsWithItsServiceEvenIfThatIsBackAtOnce) {
    serve();
    const auto restart = [&](const std::string&) {
        requests.presenceArrived(status, "offline");
        requests.presenceArrived(status, "online");
        return true;
    };
    EXPECT_THROW(ask(restart), ipc::IPCServiceLostException);
}

TEST_F(RequestsTest, UnsentRequestIsSentOnTheNextConnection) {
    serve();
    int attempts = 0;
    bustest::Gate lost;
    const auto reconnection = std::async(std::launch::async, [&] {
        lost.pass();
        requests.connected();
        requests.presenceArrived(status, "online");
    });
    EXPECT_EQ(ask([&](const std::string& correlation) {
                  if (++attempts == 1) {
                      requests.connectionLost();
                      lost.open();
                      return false;
                  }
                  requests.responseArrived(correlation, "here");
                  return true;
              }),
              "here");
    EXPECT_EQ(attempts, 2);
}

TEST_F(RequestsTest, UnregistersIfSendingThrows) {
    serve();
    EXPECT_THROW(ask([](const std::string&) -> bool { throw ipc::IPCException("too many"); }), ipc::IPCException);
    requests.close();  // would block if the request were still registered
}

TEST_F(RequestsTest, CloseFailsPendingRequests) {
    serve();
    std::future<void> closed;
    const auto begin = Requests::Clock::now();
    EXPECT_THROW(ask([&](const std::string&) {
                     closed = std::async(std::launch::async, [this] { requests.close(); });
                     return true;
                 }),
                 ipc::IPCOfflineException);
    closed.wait();
    EXPECT_LT(Requests::Clock::now() - begin, bustest::patience / 2) << "it waited for its time-out";
    EXPECT_THROW(ask([](const std::string&) { return true; }), ipc::IPCOfflineException);
}

TEST_F(RequestsTest, LimitEndsRequestsInFlight) {
    serve();
    const auto begin = Requests::Clock::now();
    EXPECT_THROW(ask([&](const std::string&) {
                     requests.limit(milliseconds(0));
                     return true;
                 }),
                 ipc::IPCTimeoutException);
    EXPECT_LT(Requests::Clock::now() - begin, bustest::patience / 2) << "it waited for its time-out";
}

// ---- requests begun before the first response is awaited ----

TEST_F(RequestsTest, BegunRequestsAreSentAtOnce) {
    serve();
    std::vector<std::string> sent;
    const Requests::Send send = [&](std::string correlation) {
        sent.push_back(std::move(correlation));
        return true;
    };
    Requests::Request first(requests, status, bustest::patience, send);
    Requests::Request second(requests, status, bustest::patience, send);
    ASSERT_EQ(sent.size(), 2U);
    requests.responseArrived(sent[1], "second");
    requests.responseArrived(sent[0], "first");
    EXPECT_EQ(first.response(), "first");
    EXPECT_EQ(second.response(), "second");
}

TEST_F(RequestsTest, ResponseThrowsTheErrorOfTheBeginning) {
    const Requests::Send tooMany = [](const std::string&) -> bool { throw ipc::IPCException("too many"); };
    Requests::Request unwatched(requests, status, bustest::patience, tooMany);
    serve();
    Requests::Request unsendable(requests, status, bustest::patience, tooMany);
    const auto errorOf = [](Requests::Request& request) -> std::string {
        try {
            return request.response();
        } catch (const ipc::IPCException& error) {
            return error.what();
        }
    };
    EXPECT_EQ(errorOf(unwatched), "The presence on test-service/status is not watched");
    EXPECT_EQ(errorOf(unsendable), "too many");
}

TEST_F(RequestsTest, ConnectionLossInterruptsBegunRequestsButKeepsResponses) {
    serve();
    std::vector<std::string> sent;
    const Requests::Send send = [&](std::string correlation) {
        sent.push_back(std::move(correlation));
        return true;
    };
    Requests::Request answered(requests, status, bustest::patience, send);
    Requests::Request unanswered(requests, status, bustest::patience, send);
    requests.responseArrived(sent[0], "here");
    requests.connectionLost();
    EXPECT_EQ(answered.response(), "here");
    EXPECT_THROW(unanswered.response(), ipc::IPCInterruptedException);
}

TEST_F(RequestsTest, BegunRequestThatCouldNotBeSentIsSentLater) {
    serve();
    int attempts = 0;
    const Requests::Send send = [&](const std::string& correlation) {
        if (++attempts == 1) return false;
        requests.responseArrived(correlation, "here");
        return true;
    };
    Requests::Request request(requests, status, bustest::patience, send);
    EXPECT_EQ(attempts, 1);
    EXPECT_EQ(request.response(), "here");
    EXPECT_EQ(attempts, 2);
}

TEST_F(RequestsTest, AbandonedRequestIsForgotten) {
    serve();
    const Requests::Send send = [](const std::string&) { return true; };
    { const Requests::Request request(requests, status, bustest::patience, send); }
    requests.close();  // would block if it were still registered
}

/// In place of a connection: `reading` runs on the caller's thread.
class FakeReader : public ipc::ResponseReader {
 public:
    bool read(Requests::Clock::time_point, const std::function<Awaited()>& awaited) override {
        return reading(awaited);
    }
    void interrupt() override { interrupted.open(); }

    std::function<bool(const std::function<Awaited()>& awaited)> reading;
    bustest::Gate interrupted;
};

class RequestsWithReader : public RequestsTest {
 protected:
    RequestsWithReader() : read(&reader) {
        read.watch(status);
        read.connecting();
        read.connected();
        read.presenceArrived(status, "online");
    }
    std::string ask() {
        return read.ask(status, bustest::patience, [this](std::string correlation) {
            sent = std::move(correlation);
            return true;
        });
    }

    FakeReader reader;
    Requests read;
    std::string sent;
};

TEST_F(RequestsWithReader, CallerReadsItsOwnResponse) {
    reader.reading = [this](const auto& awaited) {
        EXPECT_EQ(awaited(), Awaited::response);
        read.responseArrived(sent, "answer");
        EXPECT_EQ(awaited(), Awaited::nothing);
        return true;
    };
    EXPECT_EQ(ask(), "answer");
    EXPECT_FALSE(reader.interrupted.pass(milliseconds(0))) << "its own thread needs no wake-up";
}

TEST_F(RequestsWithReader, TimeoutOfABegunRequestRunsSinceItsBeginning) {
    int reads = 0;
    reader.reading = [&](const auto&) { return ++reads < 0; };
    const Requests::Send send = [](const std::string&) { return true; };
    Requests::Request first(read, status, milliseconds(5), send);
    Requests::Request second(read, status, milliseconds(5), send);
    EXPECT_THROW(first.response(), ipc::IPCTimeoutException);
    const int readsOfTheFirst = reads;
    EXPECT_THROW(second.response(), ipc::IPCTimeoutException);
    EXPECT_EQ(reads, readsOfTheFirst) << "it waited as long again";
}

TEST_F(RequestsWithReader, ResponseOnAnotherThreadInterruptsTheReader) {
    std::future<void> other;
    reader.reading = [&](const auto& awaited) {
        other = std::async(std::launch::async, [this] { read.responseArrived(sent, "answer"); });
        EXPECT_TRUE(reader.interrupted.pass());
        EXPECT_EQ(awaited(), Awaited::nothing);
        return true;
    };
    EXPECT_EQ(ask(), "answer");
}

TEST_F(RequestsWithReader, WaitsForOtherThreadsIfItCannotRead) {
    std::future<void> other;
    reader.reading = [&](const auto&) {
        other = std::async(std::launch::async, [this] { read.responseArrived(sent, "answer"); });
        return false;
    };
    EXPECT_EQ(ask(), "answer");
}

// Their responses may be held back until what was read is acknowledged.
TEST_F(RequestsWithReader, ReaderIsToldOfOtherRequestsInFlight) {
    std::string others;
    std::future<void> other;
    bustest::Gate isSent;
    reader.reading = [&](const auto& awaited) {
        if (isSent.pass(milliseconds(0))) return false;
        other = std::async(std::launch::async, [&] {
            read.ask(status, bustest::patience, [&](std::string correlation) {
                others = std::move(correlation);
                isSent.open();
                return true;
            });
        });
        EXPECT_TRUE(isSent.pass());
        read.responseArrived(sent, "answer");
        EXPECT_EQ(awaited(), Awaited::othersResponses);
        read.responseArrived(others, "other answer");
        return true;
    };
    EXPECT_EQ(ask(), "answer");
    other.get();
}

TEST_F(RequestsWithReader, ConnectionLossEndsReading) {
    reader.reading = [this](const auto& awaited) {
        read.connectionLost();
        EXPECT_EQ(awaited(), Awaited::nothing);
        return true;
    };
    EXPECT_THROW(ask(), ipc::IPCInterruptedException);
}

}  // namespace
