// A race that the suite must find: scripts/test races runs this program before anything else, and fails if the thread
// sanitizer is silent. The two threads almost always pass the mutex in the same order, which hides the race: what the
// first one wrote is then published by the mutex. Only noise in the schedule reverses the order.
#include <chrono>
#include <mutex>
#include <thread>

namespace {

constexpr int Rounds = 1000;
constexpr std::chrono::microseconds Later{300};  // far longer than the first thread takes on a quiet machine

struct Round {
    std::mutex gate;
    int shared = 0;

    void pass() { const std::lock_guard<std::mutex> lock(gate); }

    void run() {
        std::thread first([this] {
            shared = 1;
            pass();
        });
        std::thread second([this] {
            const auto end = std::chrono::steady_clock::now() + Later;
            while (std::chrono::steady_clock::now() < end) {
            }
            pass();
            shared = 2;
        });
        first.join();
        second.join();
    }
};

}  // namespace

int main() {
    for (int i = 0; i < Rounds; ++i) Round().run();
    return 0;
}
