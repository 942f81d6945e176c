// clock-probe WAY SECONDS: waits in that way and says how it ended and how long it took by the clock it sees.
// clock-probe turns N: two threads hand a turn to and fro, each in a wait of an hour; says how many wakes were for
// nothing. A turn lasts about as long as the waits' slices, so that signals meet slices that are just ending.
// clock-probe child: prints its own date and then that of a program it starts.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

std::mutex mutex;
std::condition_variable condition;

const char* waitFor(seconds time) {
    std::unique_lock<std::mutex> lock(mutex);
    return condition.wait_for(lock, time) == std::cv_status::timeout ? "timeout" : "woken";
}

const char* waitUntilDate(seconds time) {
    std::unique_lock<std::mutex> lock(mutex);
    return condition.wait_until(lock, system_clock::now() + time) == std::cv_status::timeout ? "timeout" : "woken";
}

const char* sleepFor(seconds time) {
    std::this_thread::sleep_for(time);
    return "timeout";
}

const char* pollFor(seconds time) {
    return poll(nullptr, 0, static_cast<int>(time.count()) * 1000) == 0 ? "timeout" : "failed";
}

const char* selectFor(seconds time) {
    int ends[2];
    if (pipe(ends) != 0) return "failed";
    fd_set set;
    FD_ZERO(&set);
    FD_SET(ends[0], &set);
    timespec limit{time.count(), 0};
    return pselect(ends[0] + 1, &set, nullptr, nullptr, &limit, nullptr) == 0 ? "timeout" : "failed";
}

const char* epollFor(seconds time) {
    epoll_event event{};
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    return epoll_wait(epoll, &event, 1, static_cast<int>(time.count()) * 1000) == 0 ? "timeout" : "failed";
}

const char* timerFor(seconds time) {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    itimerspec setting{};
    setting.it_value.tv_sec = time.count();
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &event) != 0) return "failed";
    if (timerfd_settime(timer, 0, &setting, nullptr) != 0) return "failed";
    return epoll_wait(epoll, &event, 1, -1) == 1 ? "timeout" : "failed";
}

int takeTurns(int count) {
    int turn = 0;
    int idleWakes = 0;
    const auto play = [&](int mine) {
        std::unique_lock<std::mutex> lock(mutex);
        while (turn < count) {
            if (turn % 2 == mine) {
                lock.unlock();
                const auto length = std::chrono::microseconds(20'000 + turn % 40 * 20 - 300);
                const auto begin = steady_clock::now();
                while (steady_clock::now() - begin < length) {
                }
                lock.lock();
                ++turn;
                lock.unlock();
                condition.notify_one();
                lock.lock();
            } else if (condition.wait_for(lock, std::chrono::hours(1)) == std::cv_status::timeout) {
                std::cout << "a turn was lost" << std::endl;
                std::_Exit(1);
            } else if (turn < count && turn % 2 != mine) {
                ++idleWakes;
            }
        }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
    return idleWakes;
}

}  // namespace

int main(int count, char** words) {
    const std::string way = count > 1 ? words[1] : "";
    if (way == "child") {
        std::cout << std::time(nullptr) << std::endl;
        return std::system("date +%s; echo \"${LD_PRELOAD:-none} ${PHONE_CLOCK:-none}\"");
    }
    const int number = count > 2 ? std::atoi(words[2]) : 0;
    if (way == "turns") {
        std::cout << takeTurns(number) << std::endl;
        return 0;
    }
    const std::map<std::string, const char* (*)(seconds)> ways{
        {"wait_for", waitFor}, {"wait_until", waitUntilDate}, {"sleep", sleepFor}, {"poll", pollFor},
        {"select", selectFor}, {"epoll", epollFor},           {"timer", timerFor}};
    const steady_clock::time_point before = steady_clock::now();
    std::cout << "begin" << std::endl;
    const char* const end = ways.at(way)(seconds(number));
    std::cout << end << ' ' << std::chrono::duration<double>(steady_clock::now() - before).count() << std::endl;
    return 0;
}
