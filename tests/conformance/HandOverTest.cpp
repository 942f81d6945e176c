// Messages with quality of service 1 around a connection loss: a message that the broker has acknowledged is never
// resent, and a message accepted after the loss is sent once.
#include <gtest/gtest.h>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;

class HandOver : public testing::Test {
 protected:
    void SetUp() override { NEEDS_TCP(); }

    // Constructed by a check that was not skipped.
    struct Diary {
        Diary() {
            reader->subscribe("diary", arrived);
            reader->connect(bus.address());
            writer->subscribe("anything", told);
            writer->connect(relay.address());
        }
        Diary(const Diary&) = delete;
        Diary& operator=(const Diary&) = delete;
        ~Diary() {
            writer->disconnect();
            reader->disconnect();
        }

        void write(std::size_t count) {
            for (std::size_t i = 0; i < count; ++i) {
                expected.push_back(std::to_string(expected.size()));
                writer->publish("diary", expected.back(), 1);
            }
        }

        conformance::Bus bus;
        fakes::Relay relay{conformance::Bus::port()};
        Recorder arrived;
        Recorder told;
        std::vector<std::string> expected;
        const std::shared_ptr<ipc::IIPCClient> reader = newClient("reader");
        const std::shared_ptr<ipc::IIPCClient> writer = newClient("writer");
    };
};

TEST_F(HandOver, DeliversOnceAroundEveryConnectionLoss) {
    Diary diary;
    for (std::size_t cut = 1; cut <= 3; ++cut) {
        diary.write(50);
        ASSERT_TRUE(diary.told.waitForCompletions(diary.expected.size()));
        diary.relay.cut();
        diary.write(50);  // some before the client notices the loss, some after
        ASSERT_TRUE(diary.told.waitForLosses(cut));
        diary.write(50);
        diary.relay.restore();
        ASSERT_TRUE(diary.told.waitForCompletions(diary.expected.size()));
    }
    ASSERT_TRUE(diary.arrived.waitForMessages(diary.expected.size()));
    diary.writer->publish("diary", "the end", 1);
    diary.expected.emplace_back("the end");
    ASSERT_TRUE(diary.arrived.waitForMessages(diary.expected.size()));
    EXPECT_EQ(diary.arrived.contents(), diary.expected);
    EXPECT_TRUE(diary.told.waitForCompletions(diary.expected.size()));
    EXPECT_EQ(diary.told.completions().size(), diary.expected.size());
}

}  // namespace
