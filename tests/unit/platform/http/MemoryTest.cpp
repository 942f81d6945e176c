// Downloads while memory runs out. In turn, each allocation of libcurl fails, alone or with all later ones. The next
// download must work.
#include <curl/curl.h>
#include <fcntl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

#include "DownloadFixture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

// Makes one allocation fail, or all from that one on.
class FailingAllocation {
 public:
    void failAt(long allocation, bool andAllLater) {
        andAllLater_ = andAllLater;
        left_ = allocation;
    }
    void off() { left_ = never; }
    /// Whether the allocation was made.
    bool wasReached() const { return left_ <= 0; }
    bool fails() {
        const long left = left_.fetch_sub(1);
        return andAllLater_ ? left <= 1 : left == 1;
    }

 private:
    static constexpr long never = std::numeric_limits<long>::max() / 2;

    std::atomic<long> left_{never};
    std::atomic<bool> andAllLater_{false};
};

FailingAllocation failingAllocation;

void* allocate(std::size_t size) { return failingAllocation.fails() ? nullptr : std::malloc(size); }
void* reallocate(void* block, std::size_t size) {
    return failingAllocation.fails() ? nullptr : std::realloc(block, size);
}
void* allocateZeroed(std::size_t count, std::size_t size) {
    return failingAllocation.fails() ? nullptr : std::calloc(count, size);
}
char* duplicate(const char* text) { return failingAllocation.fails() ? nullptr : ::strdup(text); }

// Must run before the first client: only the first initialisation of libcurl sets its memory functions.
const bool replaced =
    curl_global_init_mem(CURL_GLOBAL_ALL, allocate, std::free, reallocate, duplicate, allocateZeroed) == CURLE_OK;

class OutOfMemory : public Fixture, public testing::WithParamInterface<bool> {
 protected:
    OutOfMemory() {
        trust(authority.certificate());
        server.on("/a", HttpAnswer::ok("content"));
        secure.on("/a", HttpAnswer::ok("content"));
    }

    // Downloads with each allocation failing in turn, and once without a failure. Returns the number of allocations.
    long run(const std::string& url) {
        for (long allocation = 1;; ++allocation) {
            failingAllocation.failAt(allocation, GetParam());
            const int result = fetch(url, target);
            const bool reached = failingAllocation.wasReached();
            failingAllocation.off();
            if (result == ok) {
                EXPECT_EQ(contentOf(target), "content");
            } else {
                EXPECT_FALSE(std::filesystem::exists(target));
            }
            std::filesystem::remove(target);
            EXPECT_GE(::fcntl(0, F_GETFD), 0) << "after allocation " << allocation;
            EXPECT_EQ(fetch("/a"), ok) << "after allocation " << allocation;
            std::filesystem::remove(target);
            if (!reached || HasFailure()) return allocation - 1;
        }
    }

    const fakes::TestAuthority authority;
    fakes::HttpServer secure{authority};
};

TEST_P(OutOfMemory, FailsOneDownloadAtMost) {
    ASSERT_TRUE(replaced);
    EXPECT_GT(run(server.url("/a")), 20);
}

TEST_P(OutOfMemory, FailsOneTlsDownloadAtMost) { EXPECT_GT(run(secure.url("/a")), 20); }

TEST_P(OutOfMemory, FailsOneDownloadFromAnUnknownHostAtMost) {
    EXPECT_GT(run("http://" + std::string(70, 'a') + "/a"), 20);
}

TEST_P(OutOfMemory, FailsOneRedirectedDownloadAtMost) {
    server.on("/moved", HttpAnswer::redirect(secure.url("/a")));
    EXPECT_GT(run(server.url("/moved")), 40);
}

INSTANTIATE_TEST_SUITE_P(Download, OutOfMemory, testing::Bool(),
                         [](const auto& all) { return all.param ? "AllLater" : "Once"; });

}  // namespace
