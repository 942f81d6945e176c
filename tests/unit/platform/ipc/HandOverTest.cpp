// Messages with quality of service 1 around a connection loss: a message that the broker has acknowledged is never
// resent, and a message accepted after the loss is sent once.
#include <gtest/gtest.h>

#include "BusFixtures.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;

class HandOver : public testing::Test {
 protected:
    HandOver() {
        reader_->subscribe("diary", arrived_);
        reader_->connect(broker_.address());
        writer_->subscribe("anything", told_);
        writer_->connect(relay_.address());
    }
    ~HandOver() override {
        writer_->disconnect();
        reader_->disconnect();
    }

    void write(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            expected_.push_back(std::to_string(expected_.size()));
            writer_->publish("diary", expected_.back(), 1);
        }
    }

    fakes::Broker broker_;
    fakes::Relay relay_{broker_.port()};
    Recorder arrived_;
    Recorder told_;
    std::vector<std::string> expected_;
    const std::shared_ptr<ipc::IIPCClient> reader_ = newClient("reader");
    const std::shared_ptr<ipc::IIPCClient> writer_ = newClient("writer");
};

TEST_F(HandOver, DeliversOnceAroundEveryConnectionLoss) {
    for (std::size_t cut = 1; cut <= 3; ++cut) {
        write(50);
        ASSERT_TRUE(told_.waitForCompletions(expected_.size()));
        relay_.cut();
        write(50);  // some before the client notices the loss, some after
        ASSERT_TRUE(told_.waitForLosses(cut));
        write(50);
        relay_.restore();
        ASSERT_TRUE(told_.waitForCompletions(expected_.size()));
    }
    ASSERT_TRUE(arrived_.waitForMessages(expected_.size()));
    writer_->publish("diary", "the end", 1);
    expected_.emplace_back("the end");
    ASSERT_TRUE(arrived_.waitForMessages(expected_.size()));
    EXPECT_EQ(arrived_.contents(), expected_);
    EXPECT_TRUE(told_.waitForCompletions(expected_.size()));
    EXPECT_EQ(told_.completions().size(), expected_.size());
}

}  // namespace
