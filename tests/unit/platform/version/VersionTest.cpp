#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "version/FirmwareVersionConsts.h"
#include "version/IFirmwareVersionFactory.h"

namespace version {

namespace {

struct Row {
    std::string running;
    std::string offered;
    Comparison outcome;
};

void PrintTo(const Row& row, std::ostream* stream) {
    *stream << "'" << row.running << "' <- '" << row.offered << "' is " << static_cast<int>(row.outcome);
}

class ComparisonTest : public testing::TestWithParam<Row> {
 protected:
    ~ComparisonTest() override { FirmwareVersionConsts::getInstance().setRunningVersion({}); }
};

TEST_P(ComparisonTest, ComparesWithTheRunningVersion) {
    auto& consts = FirmwareVersionConsts::getInstance();
    auto& factory = IFirmwareVersionFactory::getInstance();
    consts.setRunningVersion(GetParam().running);
    const auto running = factory.create(consts.currentVersion(), "");
    const auto offered = factory.create(consts.offeredVersion(), GetParam().offered);
    EXPECT_EQ(running->compare(*offered), GetParam().outcome);
    EXPECT_EQ(running->text(), GetParam().running);
    EXPECT_EQ(offered->text(), GetParam().offered);
}

const std::string hundredDigits(100, '9');

INSTANTIATE_TEST_SUITE_P(
    Newer, ComparisonTest,
    testing::Values(Row{"2.13.7", "2.13.8", Comparison::newer}, Row{"2.13.7", "V2.13.8", Comparison::newer},
                    Row{"V2.9", "V2.10", Comparison::newer}, Row{"2.13", "2.13.0.1", Comparison::newer},
                    Row{"2", "3", Comparison::newer}, Row{"kd4v-2.13.7", "kd4v-2.14", Comparison::newer},
                    Row{"2.13.7", "kd4v-2.14", Comparison::newer}, Row{"kd4v-2.13.7", "2.14", Comparison::newer},
                    Row{"1.18446744073709551616", "1.18446744073709551617", Comparison::newer},
                    Row{"1.0", "1." + hundredDigits, Comparison::newer}, Row{"2.13.7", "kd4v-3", Comparison::newer},
                    Row{"2.13.7", std::string(128, '1'), Comparison::newer}, Row{"1", "1.0.0.0.1", Comparison::newer},
                    Row{"9", "10", Comparison::newer}, Row{"azAZ09-1", "azAZ09-2", Comparison::newer}));

INSTANTIATE_TEST_SUITE_P(
    Older, ComparisonTest,
    testing::Values(Row{"2.13.7", "2.13.6", Comparison::older}, Row{"2.13.7", "2", Comparison::older},
                    Row{"2.13.7", "V1.99", Comparison::older}, Row{"2.10", "2.9", Comparison::older},
                    Row{"2.13.0.1", "2.13", Comparison::older}, Row{"10", "9.99.99", Comparison::older},
                    Row{"kd4v-2.14", "kd4v-2.13", Comparison::older}));

INSTANTIATE_TEST_SUITE_P(
    Equal, ComparisonTest,
    testing::Values(Row{"2.13.7", "2.13.7", Comparison::equal}, Row{"2.13", "V2.13.0", Comparison::equal},
                    Row{"2.13", "2.013", Comparison::equal}, Row{"V002.013.007", "2.13.7", Comparison::equal},
                    Row{"0", "0.00.000", Comparison::equal}, Row{"kd4v-2.13", "2.13", Comparison::equal}));

INSTANTIATE_TEST_SUITE_P(
    Malformed, ComparisonTest,
    testing::Values(Row{"2.13.7", "", Comparison::malformed}, Row{"2.13.7", "V", Comparison::malformed},
                    Row{"2.13.7", "v2.14", Comparison::malformed}, Row{"2.13.7", "VV2.14", Comparison::malformed},
                    Row{"2.13.7", "2.14.", Comparison::malformed}, Row{"2.13.7", ".2.14", Comparison::malformed},
                    Row{"2.13.7", "2..14", Comparison::malformed}, Row{"2.13.7", "2.14b", Comparison::malformed},
                    Row{"2.13.7", "2.14-beta", Comparison::malformed}, Row{"2.13.7", " 2.14", Comparison::malformed},
                    Row{"2.13.7", "+2.14", Comparison::malformed}, Row{"2.13.7", "-2.14", Comparison::malformed},
                    Row{"2.13.7", "kd4v-", Comparison::malformed}, Row{"2.13.7", "kd 4v-2.14", Comparison::malformed},
                    Row{"2.13.7", "a-b-2.14", Comparison::malformed}, Row{"2.13.7", "2.14\n", Comparison::malformed},
                    Row{"2.13.7", "２.14", Comparison::malformed}, Row{"2.13.7", "latest", Comparison::malformed},
                    Row{"2.13.7", std::string(129, '1'), Comparison::malformed},
                    Row{"", "latest", Comparison::malformed}));

// The neighbours of digits and letters.
INSTANTIATE_TEST_SUITE_P(
    NextToDigitsAndLetters, ComparisonTest,
    testing::Values(Row{"1", "2./", Comparison::malformed}, Row{"1", "2.:", Comparison::malformed},
                    Row{"1", "a/-2", Comparison::malformed}, Row{"1", "a:-2", Comparison::malformed},
                    Row{"1", "a@-2", Comparison::malformed}, Row{"1", "a[-2", Comparison::malformed},
                    Row{"1", "a`-2", Comparison::malformed}, Row{"1", "a{-2", Comparison::malformed}));

INSTANTIATE_TEST_SUITE_P(NoUpgradePath, ComparisonTest,
                         testing::Values(Row{"", "2.14", Comparison::noUpgradePath},
                                         Row{"unknown", "2.14", Comparison::noUpgradePath},
                                         Row{"kd4v-2.13.7", "kd5-2.14", Comparison::noUpgradePath},
                                         Row{"kd4v-2.13.7", "kd5-2.13.7", Comparison::noUpgradePath},
                                         Row{"kd4v-2.13.7", "KD4V-2.14", Comparison::noUpgradePath}));

TEST(Factory, ThrowsForAnUnknownKind) {
    auto& factory = IFirmwareVersionFactory::getInstance();
    const auto& consts = FirmwareVersionConsts::getInstance();
    EXPECT_NE(consts.currentVersion(), consts.offeredVersion());
    try {
        factory.create("another", "1.0");
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Unknown kind of firmware version: another");
    }
    EXPECT_THROW(factory.create("", "1.0"), std::invalid_argument);
}

TEST(Factory, RunningVersionIsTheOneSetLast) {
    auto& consts = FirmwareVersionConsts::getInstance();
    consts.setRunningVersion("1.0");
    const auto before = IFirmwareVersionFactory::getInstance().create(consts.currentVersion(), "7.0");
    consts.setRunningVersion("2.0");
    EXPECT_EQ(before->text(), "1.0");
    EXPECT_EQ(IFirmwareVersionFactory::getInstance().create(consts.currentVersion(), "7.0")->text(), "2.0");
    EXPECT_EQ(consts.runningVersion(), "2.0");
    consts.setRunningVersion({});
}

TEST(Factory, MayBeUsedFromManyThreads) {
    auto& consts = FirmwareVersionConsts::getInstance();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&consts, i] {
            for (int j = 0; j < 500; ++j) {
                consts.setRunningVersion(std::to_string(i));
                const auto made = IFirmwareVersionFactory::getInstance().create(consts.currentVersion(), "");
                EXPECT_EQ(made->text().size(), 1U);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    consts.setRunningVersion({});
}

}  // namespace

}  // namespace version
