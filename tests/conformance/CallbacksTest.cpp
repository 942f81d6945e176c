// Which thread calls a callback, in which order, and what it may do.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"

namespace {

using namespace bustest;
using conformance::Bus;

TEST(Callbacks, MessagesOfASubscriptionArriveInOrderOnOneThread) {
    const Bus bus;
    Recorder recorder;
    std::mutex mutex;
    std::set<std::thread::id> threads;
    recorder.onMessage = [&](const std::string&, const std::string&) {
        const std::lock_guard<std::mutex> lock(mutex);
        threads.insert(std::this_thread::get_id());
    };
    const auto client = newClient("reader");
    client->subscribe("diary/#", recorder);
    client->connect(bus.address());
    std::vector<std::string> expected;
    for (int i = 0; i < 2000; ++i) {
        expected.push_back(std::to_string(i));
        client->publish("diary/" + std::to_string(i % 7), expected.back(), 1);
    }
    ASSERT_TRUE(recorder.waitForMessages(expected.size()));
    client->disconnect();
    EXPECT_EQ(recorder.contents(), expected);
    EXPECT_EQ(threads.size(), 1U);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U) << "the thread that publishes ran the callback";
}

TEST(Callbacks, EventsAreNotHeldUpByAMessage) {
    const Bus bus;
    Recorder recorder;
    Gate gate;
    recorder.onMessage = [&gate](const std::string&, const std::string&) { gate.passBlocked(); };
    const auto client = newClient("busy");
    client->subscribe("a", recorder);
    client->connect(bus.address());
    client->publish("a", "1", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publish("a", "2", 1);
    EXPECT_TRUE(recorder.waitForCompletions(2));
    gate.open();
    client->disconnect();
}

TEST(Callbacks, AnExceptionEndsOnlyItsOwnCall) {
    const Bus bus;
    Recorder recorder;
    recorder.onMessage = [](const std::string&, const std::string& content) {
        if (content == "bad") throw std::runtime_error("no luck");
        if (content == "worse") throw 7;
    };
    const auto client = newClient("thrower");
    client->subscribe("a", recorder);
    client->connect(bus.address());
    for (const char* content : {"bad", "worse", "good"}) client->publish("a", content, 1);
    EXPECT_TRUE(recorder.waitForMessages(3));
    client->disconnect();
}

TEST(Callbacks, TheOldestMessageIsDroppedBeyondTenThousand) {
    constexpr std::size_t limit = 10000;
    const Bus bus;
    Recorder slow;
    Recorder fast;
    Gate gate;
    slow.onMessage = [&gate](const std::string&, const std::string&) { gate.passBlocked(); };
    const auto client = newClient("slow");
    client->subscribe("flood", slow);
    client->connect(bus.address());
    const auto other = newClient("flood", true);
    other->subscribe("flood", fast);
    other->connect(bus.address());
    other->publish("flood", "first", 1);
    ASSERT_TRUE(slow.waitForMessages(1));
    std::size_t sent = 1;
    for (; sent < limit + 101; ++sent) {
        if (sent % 1000 == 0) {
            ASSERT_TRUE(fast.waitForMessages(sent));
        }
        other->publish("flood", std::to_string(sent), 1);
    }
    ASSERT_TRUE(fast.waitForMessages(sent));
    // Arrives behind all others, on a subscription that is not held up.
    Recorder marker;
    client->subscribe("marker", marker);
    other->publish("marker", "", 1);
    ASSERT_TRUE(marker.waitForMessages(1));
    gate.open();
    ASSERT_TRUE(slow.waitForMessages(limit + 1));
    client->disconnect();
    other->disconnect();
    const auto contents = slow.contents();
    EXPECT_EQ(contents.size(), limit + 1) << "one in the callback and the limit behind it";
    EXPECT_EQ(contents[1], "101");
    EXPECT_EQ(contents.back(), std::to_string(sent - 1));
}

TEST(Callbacks, OnlyQualityOneIsReportedAsDelivered) {
    const Bus bus;
    Recorder recorder;
    const auto client = newClient("writer");
    client->subscribe("a/#", recorder);
    client->connect(bus.address());
    client->publish("a/zero", "", 0);
    client->publish("a/one", "", 1);
    client->publish("a/two", "", 1);
    ASSERT_TRUE(recorder.waitForCompletions(2));
    ASSERT_TRUE(recorder.waitForMessages(3));
    client->disconnect();
    EXPECT_EQ(recorder.completions(), (std::vector<std::string>{"a/one", "a/two"}));
}

struct WildcardRow {
    const char* filter;
    const char* matches;  // topics, each with a blank behind it
};

class Wildcards : public testing::TestWithParam<WildcardRow> {};

TEST_P(Wildcards, MatchLevels) {
    const Bus bus;
    Recorder recorder;
    const auto client = newClient("filter");
    client->subscribe(GetParam().filter, recorder);
    client->subscribe("end", recorder);
    client->connect(bus.address());
    for (const char* topic : {"a", "a/b", "a/c", "a/b/c", "b/b", "/a", "a/"}) client->publish(topic, topic, 1);
    Recorder all;
    client->subscribe("end", all);
    client->publish("end", "", 1);
    ASSERT_TRUE(all.waitForMessages(1));
    const std::string matches = GetParam().matches;
    const auto expected = static_cast<std::size_t>(std::count(matches.begin(), matches.end(), ' '));
    ASSERT_TRUE(recorder.waitForMessages(expected + 1));
    client->disconnect();
    std::string found;
    for (const auto& [topic, content] : recorder.messages()) {
        if (topic != "end") found += topic + " ";
    }
    EXPECT_EQ(found, matches);
}

INSTANTIATE_TEST_SUITE_P(Client, Wildcards,
                         testing::Values(WildcardRow{"a", "a "}, WildcardRow{"a/b", "a/b "},
                                         WildcardRow{"a/+", "a/b a/c a/ "}, WildcardRow{"+/b", "a/b b/b "},
                                         WildcardRow{"a/#", "a a/b a/c a/b/c a/ "}, WildcardRow{"+", "a "},
                                         WildcardRow{"a/+/c", "a/b/c "}, WildcardRow{"/+", "/a "},
                                         WildcardRow{"#", "a a/b a/c a/b/c b/b /a a/ "}),
                         [](const auto& row) { return "Row" + std::to_string(row.index + 1); });

}  // namespace
