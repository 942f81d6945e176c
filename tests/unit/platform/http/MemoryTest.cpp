// Downloads while memory runs out: each allocation of libcurl fails once, and so do all from each one on. What failed
// then must cost the next download nothing.
#include <curl/curl.h>
#include <fcntl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "DownloadFixture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

// Counts down to the allocation that fails.
class Dial {
 public:
    void failAt(long allocation, bool allAfterwards) {
        allAfterwards_ = allAfterwards;
        left_ = allocation;
    }
    void off() { left_ = never; }
    /// Whether the dialled allocation has come.
    bool wasReached() const { return left_ <= 0; }
    bool fails() {
        const long left = left_.fetch_sub(1);
        return allAfterwards_ ? left <= 1 : left == 1;
    }

 private:
    static constexpr long never = 1L << 60;

    std::atomic<long> left_{never};
    std::atomic<bool> allAfterwards_{false};
};

Dial dial;

void* allocate(std::size_t size) { return dial.fails() ? nullptr : std::malloc(size); }
void* reallocate(void* block, std::size_t size) { return dial.fails() ? nullptr : std::realloc(block, size); }
void* allocateZeroed(std::size_t count, std::size_t size) { return dial.fails() ? nullptr : std::calloc(count, size); }
char* duplicate(const char* text) { return dial.fails() ? nullptr : ::strdup(text); }

// Before the first client: libcurl keeps the functions that it was first initialised with.
const bool replaced =
    curl_global_init_mem(CURL_GLOBAL_ALL, allocate, std::free, reallocate, duplicate, allocateZeroed) == CURLE_OK;

class NoMemory : public Fixture, public testing::WithParamInterface<bool> {
 protected:
    NoMemory() {
        writeFile("/custom/certs/ca-bundle.pem", authority.certificate());
        security.reloadCertificates();
        server.on("/a", HttpAnswer::ok("content"));
        secure.on("/a", HttpAnswer::ok("content"));
    }
    ~NoMemory() override { std::filesystem::remove("/custom/certs/ca-bundle.pem"); }

    // Downloads with each allocation failing in turn, and once more without; returns how many there were.
    long run(const std::string& url) {
        for (long allocation = 1;; ++allocation) {
            dial.failAt(allocation, GetParam());
            const int result = fetch(url, target);
            const bool reached = dial.wasReached();
            dial.off();
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

TEST_P(NoMemory, CostsOneDownloadAtMost) {
    ASSERT_TRUE(replaced);
    EXPECT_GT(run(server.url("/a")), 20);
}

TEST_P(NoMemory, CostsOneDownloadOverTlsAtMost) { EXPECT_GT(run(secure.url("/a")), 20); }

TEST_P(NoMemory, CostsNothingMoreForAnUnknownHost) { EXPECT_GT(run("http://" + std::string(70, 'a') + "/a"), 20); }

TEST_P(NoMemory, CostsOneRedirectedDownloadAtMost) {
    server.on("/moved", HttpAnswer::redirect(secure.url("/a")));
    EXPECT_GT(run(server.url("/moved")), 40);
}

INSTANTIATE_TEST_SUITE_P(Download, NoMemory, testing::Bool(),
                         [](const auto& all) { return all.param ? "FromOneOn" : "Once"; });

}  // namespace
