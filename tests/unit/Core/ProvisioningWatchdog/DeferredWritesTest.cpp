#include "Core/ProvisioningWatchdog/DeferredWrites.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "fakes/FakeProperties.h"
#include "fakes/LogCapture.h"
#include "propertyapi/PropertyExceptions.h"

namespace {

class DeferredWritesTest : public testing::Test {
 protected:
    using Kind = zav::DeferredWrites::Kind;

    void write(const std::string& value, Kind kind = Kind::result) {
        writes_->write(kind, [this, value] { properties_.set("key", value); });
    }
    std::vector<std::string> written() const { return properties_.writesTo("key"); }

    fakes::LogCapture log_;
    fakes::FakeProperties properties_{{{"key", ""}}};
    std::unique_ptr<zav::DeferredWrites> writes_ = std::make_unique<zav::DeferredWrites>();
};

TEST_F(DeferredWritesTest, AWriteThatWorksIsMadeAtOnce) {
    write("a");
    EXPECT_EQ(written(), std::vector<std::string>{"a"});
}

TEST_F(DeferredWritesTest, WritesAreMadeUpForInTheirOrder) {
    properties_.setOffline(true);
    write("a");
    write("b");
    EXPECT_TRUE(written().empty());
    properties_.setOffline(false);
    write("c");
    EXPECT_TRUE(properties_.waitForWrite("key", "c"));
    EXPECT_EQ(written(), (std::vector<std::string>{"a", "b", "c"}));
    write("d");
    EXPECT_TRUE(properties_.waitForWrite("key", "d"));
    EXPECT_EQ(written().size(), 4U) << "each was made once";
}

// The retry thread has nothing to do between two outages, and must be told of the next write.
TEST_F(DeferredWritesTest, ASecondOutageIsMadeUpForToo) {
    for (const char* value : {"a", "b", "c"}) {
        properties_.setOffline(true);
        write(value);
        properties_.setOffline(false);
        EXPECT_TRUE(properties_.waitForWrite("key", value, std::chrono::seconds(10)));
    }
}

TEST_F(DeferredWritesTest, ATimeoutIsTriedAgainToo) {
    bool first = true;
    writes_->write(Kind::result, [&] {
        if (std::exchange(first, false)) throw propertyapi::PropertyTimeoutException("no answer");
        properties_.set("key", "a");
    });
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
}

TEST_F(DeferredWritesTest, ARefusalIsTheCallersAndNotTriedAgain) {
    int calls = 0;
    EXPECT_THROW(writes_->write(Kind::result,
                                [&] {
                                    ++calls;
                                    throw propertyapi::PropertyNotFoundException("no such key");
                                }),
                 propertyapi::PropertyNotFoundException);
    write("a");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(written(), std::vector<std::string>{"a"}) << "nothing waits before it";
}

TEST_F(DeferredWritesTest, ALaterRefusalIsLoggedAndDoesNotHoldTheNext) {
    properties_.setOffline(true);
    writes_->write(Kind::result, [&] { properties_.set("unknown", "x"); });
    write("a");
    properties_.setOffline(false);
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
    EXPECT_TRUE(log_.has(fakes::error("Core/ProvisioningWatchdog/DeferredWrites",
                                      "Deferred property write failed: Property 'unknown': not found")));
}

TEST_F(DeferredWritesTest, CancelForgetsWhatWaits) {
    properties_.setOffline(true);
    write("stale");
    writes_->cancel();
    properties_.setOffline(false);
    write("fresh");
    writes_.reset();  // its last attempt included
    EXPECT_EQ(written(), std::vector<std::string>{"fresh"});
}

TEST_F(DeferredWritesTest, WhatIsOwedOfOneKindCanBeForgotten) {
    properties_.setOffline(true);
    write("result");
    write("unlock", Kind::unlock);
    write("another result");
    writes_->cancel(Kind::result);
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"unlock"});
}

// Two results are owed; what makes them stale comes while the first is under way.
TEST_F(DeferredWritesTest, ACancellationSparesOnlyTheWriteUnderWay) {
    auto ownedBySecond = std::make_shared<int>();
    const std::weak_ptr<int> second = ownedBySecond;
    std::atomic<bool> back{false};
    std::promise<void> underWay;
    writes_->write(Kind::result, [&] {
        if (!back) throw propertyapi::PropertyOfflineException("away");
        underWay.set_value();
        while (!second.expired()) std::this_thread::yield();
        properties_.set("key", "first");
    });
    writes_->write(Kind::result, [this, token = std::move(ownedBySecond)] { properties_.set("key", "second"); });
    std::thread canceller([&] {
        underWay.get_future().wait();
        writes_->cancel(Kind::result);
        EXPECT_EQ(written(), std::vector<std::string>{"first"}) << "it waits for that one";
    });
    back = true;
    canceller.join();
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"first"});
}

// The write under way was cancelled meanwhile; what has been kept since is not it.
TEST_F(DeferredWritesTest, AWriteKeptDuringACancelledOneIsMadeUpFor) {
    auto ownedBySecond = std::make_shared<int>();
    const std::weak_ptr<int> second = ownedBySecond;
    std::atomic<bool> back{false};
    std::promise<void> underWay;
    std::promise<void> release;
    writes_->write(Kind::result, [&] {
        if (!back) throw propertyapi::PropertyOfflineException("away");
        underWay.set_value();
        release.get_future().wait();
    });
    writes_->write(Kind::result, [token = std::move(ownedBySecond)] {});
    back = true;
    underWay.get_future().wait();
    std::thread canceller([&] { writes_->cancel(); });
    while (!second.expired()) std::this_thread::yield();
    bool first = true;
    writes_->write(Kind::result, [&] {
        if (std::exchange(first, false)) throw propertyapi::PropertyOfflineException("away again");
        properties_.set("key", "later");
    });
    release.set_value();
    canceller.join();
    EXPECT_TRUE(properties_.waitForWrite("key", "later", std::chrono::seconds(10)));
    writes_.reset();
}

TEST_F(DeferredWritesTest, ItsEndTriesOnceMore) {
    properties_.setOffline(true);
    write("a");
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"a"});
}

TEST_F(DeferredWritesTest, ItsEndMakesUpForEverything) {
    properties_.setOffline(true);
    for (const char* value : {"a", "b", "c"}) write(value);
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DeferredWritesTest, ItsEndDoesNotWaitForAServiceThatIsAway) {
    properties_.setOffline(true);
    write("a");
    writes_.reset();
    EXPECT_TRUE(written().empty());
}

}  // namespace
