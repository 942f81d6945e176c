#include "ConnectionLoss.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "fakes/LogCapture.h"

namespace {

using ipc::BackOff;
using ipc::ConnectionLoss;

const ipc::Address broker{"phone", 1883};

std::size_t count(const fakes::LogCapture& log, const std::string& text) {
    const std::string all = log.text();
    std::size_t found = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++found;
    return found;
}

TEST(ConnectionLoss, LogsAFailureOnceUntilTheNextConnection) {
    const fakes::LogCapture log;
    ConnectionLoss losses(ConnectionLoss::Logging::on, "me");
    for (int attempt = 0; attempt < 3; ++attempt) losses.failed(broker, "Connection refused");
    EXPECT_EQ(count(log, "Cannot connect to the broker at phone:1883: Connection refused; retrying"), 1U);
    losses.failed(broker, "no answer");
    EXPECT_EQ(count(log, "Cannot connect to the broker at phone:1883: no answer; retrying"), 1U);
    losses.connected();
    EXPECT_EQ(count(log, "Connected to the broker"), 1U);
    losses.failed(broker, "no answer");
    EXPECT_EQ(count(log, "no answer; retrying"), 2U);
}

TEST(ConnectionLoss, LogsATakeover) {
    const fakes::LogCapture log;
    ConnectionLoss losses(ConnectionLoss::Logging::on, "me");
    losses.lost(BackOff::Loss::plain, "Keep alive timeout");
    EXPECT_EQ(count(log, "Connection to the broker lost: Keep alive timeout"), 1U);
    losses.lost(BackOff::Loss::suspected, "closed");
    EXPECT_EQ(count(log, "perhaps another me is connected and has taken over from this one"), 1U);
    losses.lost(BackOff::Loss::takeover, "taken over");
    EXPECT_EQ(count(log, "Another me is connected to the broker and has taken over from this one"), 1U);
}

TEST(ConnectionLoss, LogsNothingIfSwitchedOff) {
    const fakes::LogCapture log;
    ConnectionLoss losses(ConnectionLoss::Logging::off, "me");
    losses.failed(broker, "Connection refused");
    losses.connected();
    losses.lost(BackOff::Loss::takeover, "taken over");
    EXPECT_EQ(log.text(), "");
}

}  // namespace
