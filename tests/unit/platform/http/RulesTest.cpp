#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>

#include "ContentCoding.h"
#include "Credentials.h"
#include "FileVersion.h"
#include "ResumePlan.h"
#include "Transfer.h"

namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using zav::keepsPace;
using zav::ResumePlan;

constexpr std::uint64_t mebibyte = 1024 * 1024;

TEST(Pace, DoesNotCountTheFirstFiveMinutes) {
    EXPECT_TRUE(keepsPace(seconds(0), 0));
    EXPECT_TRUE(keepsPace(minutes(5), 0));
    EXPECT_FALSE(keepsPace(minutes(5) + seconds(1), 0));
}

TEST(Pace, AsksForOneKibibyteASecondAfterThat) {
    EXPECT_TRUE(keepsPace(minutes(5) + seconds(100), 100 * 1024));
    EXPECT_FALSE(keepsPace(minutes(5) + seconds(100), 100 * 1024 - 1));
    EXPECT_FALSE(keepsPace(minutes(5) + seconds(101), 100 * 1024));
}

TEST(Pace, AllowsASlowLine) {
    // 2 KiB a second for two hours.
    EXPECT_TRUE(keepsPace(hours(2), 2 * 1024 * 7200));
}

TEST(Pace, EndsADrippingTransfer) {
    // Ten bytes a minute do not stall.
    EXPECT_FALSE(keepsPace(minutes(10), 100));
}

TEST(ByteCount, ChangesWithEachByteBeyondItsType) {
    using zav::wrappedCount;
    constexpr std::int64_t maximum = std::numeric_limits<std::int32_t>::max();
    EXPECT_EQ(wrappedCount<std::int32_t>(0), 0);
    EXPECT_EQ(wrappedCount<std::int32_t>(maximum), maximum);
    EXPECT_EQ(wrappedCount<std::int32_t>(maximum + 1), 0);
    EXPECT_EQ(wrappedCount<std::int32_t>(maximum + 2), 1);
    EXPECT_EQ(wrappedCount<std::int32_t>(5'000'000'000), 705'032'704);
    EXPECT_EQ(wrappedCount<std::int64_t>(5'000'000'000), 5'000'000'000);
}

TEST(ResumePlan, FirstRetryHasNoPause) { EXPECT_EQ(ResumePlan().next(0), seconds(0)); }

TEST(ResumePlan, BacksOffAndGivesUpAfterTenIdleAttempts) {
    ResumePlan plan;
    const long expected[] = {0, 1, 2, 4, 8, 16, 30, 30, 30};
    for (const long wait : expected) EXPECT_EQ(plan.next(100), seconds(wait));
    EXPECT_EQ(plan.next(100), std::nullopt);
}

TEST(ResumePlan, ProgressResetsTheBackOff) {
    ResumePlan plan;
    for (int idle = 0; idle < 9; ++idle) EXPECT_NE(plan.next(0), std::nullopt);
    EXPECT_EQ(plan.next(mebibyte), seconds(0));
    for (int idle = 0; idle < 9; ++idle) EXPECT_NE(plan.next(mebibyte + 1), std::nullopt);
    EXPECT_EQ(plan.next(mebibyte + 2), std::nullopt);
}

TEST(ResumePlan, AStepForwardIsSixtyFourKibibytes) {
    constexpr std::uint64_t step = 64 * 1024;
    ResumePlan enough;
    EXPECT_EQ(enough.next(step), seconds(0));
    EXPECT_EQ(enough.next(2 * step), seconds(0));
    EXPECT_EQ(enough.next(3 * step), seconds(0));
    ResumePlan tooLittle;
    EXPECT_EQ(tooLittle.next(step - 1), seconds(0));
    EXPECT_EQ(tooLittle.next(2 * (step - 1)), seconds(1));
    EXPECT_EQ(tooLittle.next(3 * (step - 1)), seconds(2));
}

TEST(ResumePlan, AFileThatBeginsAnewIsCountedFromItsNewSize) {
    ResumePlan plan;
    EXPECT_EQ(plan.next(mebibyte), seconds(0));
    EXPECT_EQ(plan.next(0), seconds(0)) << "the first without a step forward";
    EXPECT_EQ(plan.next(0), seconds(1));
    EXPECT_EQ(plan.next(64 * 1024), seconds(0)) << "far from where it was, and ahead of where it began anew";
}

TEST(ResumePlan, GivesUpAfterAHundredAttempts) {
    ResumePlan plan;
    std::uint64_t size = 0;
    for (int attempt = 1; attempt < 100; ++attempt) EXPECT_NE(plan.next(size += mebibyte), std::nullopt);
    EXPECT_EQ(plan.next(size + mebibyte), std::nullopt);
}

TEST(ResumePlan, RetriesOnlyAfterAnInterruption) {
    // A truncated body, a failed receive, a refused connection, a timeout.
    for (const int result : {18, 56, 7, 28}) EXPECT_TRUE(ResumePlan::isRetryable(result)) << result;
    // An unknown host, a failed handshake, a failed send, no response.
    for (const int result : {6, 35, 55, 52}) EXPECT_TRUE(ResumePlan::isRetryable(result)) << result;
    // Success, too large, not written, not trusted, an invalid range, too many redirects.
    for (const int result : {0, 63, 23, 60, 33, 47}) EXPECT_FALSE(ResumePlan::isRetryable(result)) << result;
}

TEST(SameServerRule, ComparesHostAndPortWithTheSchemesOwn) {
    const auto same = [](const char* a, const char* b) { return zav::isSameServer(zav::UrlInfo(a), zav::UrlInfo(b)); };
    EXPECT_TRUE(same("http://host/a", "http://host/b/c"));
    EXPECT_TRUE(same("http://Host.Example/", "http://hOST.eXAMPLE/"));
    EXPECT_TRUE(same("http://host", "http://host:80"));
    EXPECT_TRUE(same("https://host:443", "https://host"));
    EXPECT_TRUE(same("http://host:443", "https://host"));
    EXPECT_FALSE(same("http://host", "https://host"));
    EXPECT_FALSE(same("http://host", "http://host:8080"));
    EXPECT_FALSE(same("https://host", "https://host:80"));
    EXPECT_FALSE(same("http://host", "http://host.example"));
    EXPECT_FALSE(same("http://[::1]", "http://[::2]"));
}

struct CodingRow {
    const char* codings;
    const char* fileName;
    bool accepted;
};

TEST(ContentCodingRule, AcceptsTheCodingOfTheSuffix) {
    const CodingRow rows[] = {
        {"", "a.xml", true},
        {"identity", "a.xml", true},
        {"IDENTITY, identity", "a.xml", true},
        {" , ,", "a.xml", true},
        {"gzip", "a.xml", false},
        {"gzip", "", false},
        {"gzip", ".gz", false},
        {"gzip", "gz", false},
        {"gzip", "image.img.gz", true},
        {"GZip", "IMAGE.GZ", true},
        {"x-gzip", "image.tgz", true},
        {"x-gzip", "image.tar.gz", true},
        {"gzip", "image.gz.xml", false},
        {"gzip", "image.br", false},
        {"br", "a.br", true},
        {"br", "a.gz", false},
        {"zstd", "a.zst", true},
        {"xz", "a.txz", true},
        {"x-xz", "a.xz", true},
        {"bzip2", "a.bz2", true},
        {"x-bzip2", "a.tbz2", true},
        {"compress", "a.Z", true},
        {"x-compress", "a.z", true},
        {"deflate", "a.xml", false},
        {"nonsense", "a.nonsense", false},
        {"gzip, br", "a.gz", false},
        {"gzip,gzip", "a.gz", false},
        {"gzip, identity", "a.gz", true},
        {"gzip;q=1", "a.gz", false},
        {"gzi", "a.gz", false},
    };
    for (const CodingRow& row : rows) {
        EXPECT_EQ(zav::isAcceptedCoding(row.codings, row.fileName), row.accepted) << row.codings << " " << row.fileName;
    }
}

TEST(FileVersionRule, StrongETagOrSingleDateIsAValidator) {
    const std::string day = "Wed, 18 Nov 2026 10:00:00 GMT";
    const std::string later = "Wed, 18 Nov 2026 10:00:01 GMT";
    const std::string old = "Wednesday, 18-Nov-26 10:00:00 GMT";
    const std::string bare = "Wed Nov 18 10:00:00 2026";
    using zav::FileVersion;
    EXPECT_EQ((FileVersion{"\"a\"", day, later}.strongValidator()), "\"a\"");
    EXPECT_EQ((FileVersion{"", day, later}.strongValidator()), day);
    EXPECT_EQ((FileVersion{"", old, later}.strongValidator()), old);
    EXPECT_EQ((FileVersion{"", bare, later}.strongValidator()), bare);
    for (const FileVersion& version :
         {FileVersion{"W/\"a\"", day, later}, FileVersion{"a", day, later}, FileVersion{"\"a\",\"a\"", day, later},
          FileVersion{"", day, day}, FileVersion{"", day, ""}, FileVersion{"", day + "," + day, later},
          FileVersion{"", bare + "," + bare, later}, FileVersion{"", day, later + "," + later}}) {
        EXPECT_EQ(version.strongValidator(), "") << version.etag << " " << version.lastModified << " " << version.date;
    }
}

TEST(ContentRangeRule, AcceptsCompleteRangesOnly) {
    const auto range = zav::parseContentRange("bytes 5-9/20");
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, 5U);
    EXPECT_EQ(range->last, 9U);
    EXPECT_EQ(range->total, 20U);
    EXPECT_TRUE(zav::parseContentRange("Bytes 0-0/1"));
    const auto large = zav::parseContentRange("bytes 5000000000-5999999999/6000000000");
    ASSERT_TRUE(large);
    EXPECT_EQ(large->first, 5'000'000'000U);
    EXPECT_EQ(large->total, 6'000'000'000U);
    for (const char* text : {"", "bytes", "bytes 5-9", "bytes 5-9/", "bytes 5-9/*", "bytes */20", "bytes 9-5/20",
                             "bytes 5-20/20", "bytes -9/20", "bytes 5-/20", "bytes 5/20-9", "bytes  5-9/20",
                             "bytes 5 - 9/20", "bytes=5-9/20", "bytes +5-9/20", "bytes 5-9/20,bytes 5-9/20",
                             "bytes 0x5-9/20", "bytes 5-9/9999999999999999999", "lines 5-9/20"}) {
        EXPECT_FALSE(zav::parseContentRange(text)) << text;
    }
}

}  // namespace
