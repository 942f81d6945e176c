#include "Core/ProvisioningWatchdog/DeferredWrites.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <new>
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

TEST_F(DeferredWritesTest, WritesAtOnceIfPossible) {
    write("a");
    EXPECT_EQ(written(), std::vector<std::string>{"a"});
}

TEST_F(DeferredWritesTest, RetriesWritesInOrder) {
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
    EXPECT_EQ(written().size(), 4U) << "each must be written once";
}

// The retry thread sleeps between two outages and must be woken for the next write.
TEST_F(DeferredWritesTest, RetriesAfterASecondOutage) {
    for (const char* value : {"a", "b", "c"}) {
        properties_.setOffline(true);
        write(value);
        properties_.setOffline(false);
        EXPECT_TRUE(properties_.waitForWrite("key", value, std::chrono::seconds(10)));
    }
}

TEST_F(DeferredWritesTest, RetriesATimeout) {
    bool first = true;
    writes_->write(Kind::result, [&] {
        if (std::exchange(first, false)) throw propertyapi::PropertyTimeoutException("no answer");
        properties_.set("key", "a");
    });
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
}

TEST_F(DeferredWritesTest, RetriesAWriteThatHadNoMemory) {
    bool first = true;
    writes_->write(Kind::result, [&] {
        if (std::exchange(first, false)) throw std::bad_alloc();
        properties_.set("key", "a");
    });
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
}

/// A write without an answer on the thread that made it, whose first two copies on other threads have no memory.
struct UncopyableWrite {
    explicit UncopyableWrite(fakes::FakeProperties& written) : properties(&written) {}
    UncopyableWrite(const UncopyableWrite& other)
        : properties(other.properties), home(other.home), failures(other.failures) {
        if (!isHome() && failures->fetch_sub(1) > 0) throw std::bad_alloc();
    }
    UncopyableWrite& operator=(const UncopyableWrite&) = delete;
    ~UncopyableWrite() = default;
    void operator()() const {
        if (isHome()) throw propertyapi::PropertyTimeoutException("no answer");
        properties->set("key", "a");
    }
    bool isHome() const { return std::this_thread::get_id() == home; }

    fakes::FakeProperties* properties;
    std::thread::id home = std::this_thread::get_id();
    std::shared_ptr<std::atomic<int>> failures = std::make_shared<std::atomic<int>>(2);
};

// The retry thread copies a write before it makes it.
TEST_F(DeferredWritesTest, RetriesAfterAnAttemptWithoutMemory) {
    const UncopyableWrite uncopyable(properties_);
    writes_->write(Kind::result, uncopyable);
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
    EXPECT_LE(*uncopyable.failures, 0) << "a copy must have failed";
}

TEST_F(DeferredWritesTest, RefusalThrowsAndIsNotRetried) {
    int calls = 0;
    EXPECT_THROW(writes_->write(Kind::result,
                                [&] {
                                    ++calls;
                                    throw propertyapi::PropertyNotFoundException("no such key");
                                }),
                 propertyapi::PropertyNotFoundException);
    write("a");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(written(), std::vector<std::string>{"a"}) << "the refused write must not block it";
}

TEST_F(DeferredWritesTest, RefusedRetryIsLoggedAndDoesNotBlockTheNext) {
    properties_.setOffline(true);
    writes_->write(Kind::result, [&] { properties_.set("unknown", "x"); });
    write("a");
    properties_.setOffline(false);
    EXPECT_TRUE(properties_.waitForWrite("key", "a"));
    EXPECT_TRUE(log_.has(fakes::error("Core/ProvisioningWatchdog/DeferredWrites",
                                      "Deferred property write failed: Property 'unknown': not found")));
}

TEST_F(DeferredWritesTest, CancelDropsPendingWrites) {
    properties_.setOffline(true);
    write("stale");
    writes_->cancel();
    properties_.setOffline(false);
    write("fresh");
    writes_.reset();  // includes the destructor's last attempt
    EXPECT_EQ(written(), std::vector<std::string>{"fresh"});
}

TEST_F(DeferredWritesTest, CancelsPendingWritesOfOneKind) {
    properties_.setOffline(true);
    write("result");
    write("unlock", Kind::unlock);
    write("another result");
    writes_->cancel(Kind::result);
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"unlock"});
}

// Two results are pending; they are cancelled while the first is being written.
TEST_F(DeferredWritesTest, CancelSparesOnlyTheWriteInProgress) {
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
        EXPECT_EQ(written(), std::vector<std::string>{"first"}) << "cancel must wait for it";
    });
    back = true;
    canceller.join();
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"first"});
}

// A cancelled write must not remove a write that was added after the cancellation.
TEST_F(DeferredWritesTest, RetriesAWriteAddedDuringACancelledOne) {
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

TEST_F(DeferredWritesTest, DestructorRetriesOnce) {
    properties_.setOffline(true);
    write("a");
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), std::vector<std::string>{"a"});
}

TEST_F(DeferredWritesTest, DestructorRetriesAllPendingWrites) {
    properties_.setOffline(true);
    for (const char* value : {"a", "b", "c"}) write(value);
    properties_.setOffline(false);
    writes_.reset();
    EXPECT_EQ(written(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DeferredWritesTest, DestructorDoesNotWaitForAnOfflineService) {
    properties_.setOffline(true);
    write("a");
    writes_.reset();
    EXPECT_TRUE(written().empty());
}

}  // namespace
