// The cost of a log line, beside a plain write of as many bytes; and of a line whose level is off, beside a branch. The
// log goes to standard error: a file, unless a socket is asked for, which a thread reads as the journal does.
//
//   bench_log [Google Benchmark's options] [socket]
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "debug/Debug.h"

namespace {

const dbg::Debug channel("BENCH");
const std::string name = "Telephony.Accounts.0.DisplayName";
std::atomic<bool> enabled{false};

void logOne(int number) { dbg::Debug::info() << "Applying param: '" << name << "'='" << number << "'" << std::endl; }

void line(benchmark::State& state) {
    dbg::Debug::setDebugLevelMask("7");
    for ([[maybe_unused]] auto _ : state) logOne(12345);
}

void plainWrite(benchmark::State& state) {
    const std::string text =
        "2026-01-01T00:00:00.000 BENCH info bench/probes/Log:24 Applying param: '" + name + "'='12345'\n";
    for ([[maybe_unused]] auto _ : state) {
        if (::write(STDERR_FILENO, text.data(), text.size()) < 0) throw std::runtime_error("cannot write");
    }
}

void maskedLine(benchmark::State& state) {
    dbg::Debug::setDebugLevelMask("3");
    for ([[maybe_unused]] auto _ : state) logOne(12345);
}

void branch(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        if (enabled.load(std::memory_order_relaxed)) logOne(12345);
    }
}

BENCHMARK(line);
BENCHMARK(plainWrite);
BENCHMARK(maskedLine);
BENCHMARK(branch);

/// Makes standard error a socket and reads what arrives, until standard error is closed.
class Reader {
 public:
    Reader() {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) throw std::runtime_error("cannot make a socket");
        ::dup2(ends[0], STDERR_FILENO);
        ::close(ends[0]);
        thread_ = std::thread([reading = ends[1]] {
            std::array<char, 65536> buffer{};
            while (::read(reading, buffer.data(), buffer.size()) > 0) {
            }
            ::close(reading);
        });
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() {
        ::close(STDERR_FILENO);
        thread_.join();
    }

 private:
    std::thread thread_;
};

void run() {
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc == 1) {
        run();
    } else {
        const Reader reader;
        run();
    }
    return 0;
}
