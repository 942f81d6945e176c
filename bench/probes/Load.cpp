// bench_load PORT CLIENTS: as many bare clients, each of which sends its next request when it has the answer to the
// last one. A line "TOPIC MILLISECONDS KEY..." on standard input loads the topic for that long and prints the requests
// that were answered a second, then median and 99th percentile of their times in microseconds. The clients take the
// keys in turn.
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "floors/BareClient.h"

namespace {

using Clock = std::chrono::steady_clock;

class LoadingClient {
 public:
    LoadingClient(int port, const std::string& name)
        : client_(port, name,
                  [this](const mosquitto_message& message, const mosquitto_property*) { answered(message); }) {}

    int socket() const { return client_.socket(); }
    void read() { client_.read(); }
    bool isWaiting() const { return isWaiting_; }
    const std::vector<double>& times() const { return times_; }
    void stop() { isStopped_ = true; }

    void begin(const std::string& topic, const std::vector<std::string>* keys, std::size_t first) {
        topic_ = topic;
        keys_ = keys;
        next_ = first;
        times_.clear();
        isStopped_ = false;
        send();
    }

 private:
    void send() {
        const std::string& key = (*keys_)[next_ % keys_->size()];
        next_ += 7;  // so that clients that started side by side do not meet at the same keys
        isWaiting_ = true;
        sentAt_ = Clock::now();
        client_.send(topic_.c_str(), floors::setRequest(key, std::to_string(++value_)), "12345678");
    }
    void answered(const mosquitto_message& message) {
        const std::string answer(static_cast<const char*>(message.payload),
                                 static_cast<std::size_t>(message.payloadlen));
        if (answer.find("\"error\"") != std::string::npos) throw std::runtime_error("refused: " + answer);
        times_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sentAt_).count());
        isWaiting_ = false;
        if (!isStopped_) send();
    }

    floors::BareClient client_;
    std::string topic_;
    const std::vector<std::string>* keys_ = nullptr;
    std::size_t next_ = 0;
    unsigned value_ = 0;
    bool isWaiting_ = false;
    bool isStopped_ = false;
    Clock::time_point sentAt_;
    std::vector<double> times_;
};

class Load {
 public:
    Load(int port, int count) : poll_(epoll_create1(EPOLL_CLOEXEC)) {
        for (int index = 0; index < count; ++index) {
            clients_.push_back(std::make_unique<LoadingClient>(port, "load-" + std::to_string(index)));
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.ptr = clients_.back().get();
            epoll_ctl(poll_, EPOLL_CTL_ADD, clients_.back()->socket(), &event);
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;
    ~Load() { close(poll_); }

    void run(const std::string& topic, const std::vector<std::string>& keys, std::chrono::milliseconds duration) {
        const auto start = Clock::now();
        std::size_t first = 0;
        for (const auto& client : clients_) client->begin(topic, &keys, first++);
        while (Clock::now() < start + duration) serve();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        std::vector<double> times;
        for (const auto& client : clients_) times.insert(times.end(), client->times().begin(), client->times().end());
        for (const auto& client : clients_) client->stop();
        while (std::any_of(clients_.begin(), clients_.end(), [](const auto& one) { return one->isWaiting(); })) serve();
        if (times.empty()) throw std::runtime_error("no answers");
        std::sort(times.begin(), times.end());
        std::printf("%.1f %.2f %.2f\n", static_cast<double>(times.size()) / seconds, times[times.size() / 2],
                    times[times.size() * 99 / 100]);
        std::fflush(stdout);
    }

 private:
    void serve() {
        std::array<epoll_event, 64> ready{};
        const int count = epoll_wait(poll_, ready.data(), static_cast<int>(ready.size()), 5000);
        if (count <= 0) throw std::runtime_error("no answer within 5 s");
        for (int index = 0; index < count; ++index) {
            static_cast<LoadingClient*>(ready.at(static_cast<std::size_t>(index)).data.ptr)->read();
        }
    }

    const int poll_;
    std::vector<std::unique_ptr<LoadingClient>> clients_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return EXIT_FAILURE;
    try {
        Load load(std::atoi(argv[1]), std::atoi(argv[2]));
        for (std::string line; std::getline(std::cin, line);) {
            std::istringstream words(line);
            std::string topic;
            int milliseconds = 0;
            words >> topic >> milliseconds;
            std::vector<std::string> keys;
            for (std::string key; words >> key;) keys.push_back(key);
            load.run(topic, keys, std::chrono::milliseconds(milliseconds));
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_load: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
