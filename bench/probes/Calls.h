// Times calls and prints their figures on one line: "median 99th-percentile largest", in microseconds.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace probes {

inline void printQuantiles(std::vector<double>& times) {
    std::sort(times.begin(), times.end());
    std::printf("%.3f %.3f %.3f\n", times[times.size() / 2], times[times.size() * 99 / 100], times.back());
    std::fflush(stdout);
}

inline void timeCalls(int count, const std::function<void()>& once) {
    using Clock = std::chrono::steady_clock;
    for (int i = 0; i < 50; ++i) once();
    std::vector<double> times(static_cast<std::size_t>(count));
    for (double& time : times) {
        const auto start = Clock::now();
        once();
        time = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    }
    printQuantiles(times);
}

/// Serves lines "WORD COUNT" from standard input until its end.
inline void serveLines(const std::function<void(const std::string& word, int count)>& serve) {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string word;
        int count = 0;
        words >> word >> count;
        serve(word, count);
    }
}

}  // namespace probes
