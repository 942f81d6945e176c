// Measures the property service under load, and a floor: a responder that only echoes, with the same broker and clients
// in the same run. First one client that waits for each answer (the phone's client, then a bare one), then 64 clients
// with one outstanding request each. The first series runs on one CPU, which compares the work done; the second one on
// all CPUs, where the cost of waking another CPU depends on the machine. Prints the median of the rounds; goals are
// ratios to the floor.
//
//   bench_properties [seconds per measurement]
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr char address[] = "127.0.0.1";
constexpr int rounds = 9;
constexpr int many = 64;
constexpr char echoStatus[] = "echo/status";
constexpr char serviceStatus[] = "prop-service/status";

struct FreeHandle {
    void operator()(mosquitto* handle) const { mosquitto_destroy(handle); }
};
using Handle = std::unique_ptr<mosquitto, FreeHandle>;

Handle connected(int port, const std::string& name, void* owner) {
    Handle handle(mosquitto_new(name.c_str(), true, owner));
    mosquitto_int_option(handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(handle.get(), address, port, 600) != MOSQ_ERR_SUCCESS)
        throw std::runtime_error("cannot connect to the broker");
    return handle;
}

/// Echoes each request to its response topic. For "echo/change" it also publishes a change with QoS 1: the minimum cost
/// of a set.
int echo(int port) {
    const Handle handle = connected(port, "echo", nullptr);
    mosquitto_message_v5_callback_set(
        handle.get(), [](mosquitto* self, void*, const mosquitto_message* message, const mosquitto_property* request) {
            char* topic = nullptr;
            void* correlation = nullptr;
            std::uint16_t size = 0;
            mosquitto_property_read_string(request, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
            mosquitto_property_read_binary(request, MQTT_PROP_CORRELATION_DATA, &correlation, &size, false);
            mosquitto_property* properties = nullptr;
            mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation, size);
            mosquitto_publish_v5(self, nullptr, topic, message->payloadlen, message->payload, 0, false, properties);
            mosquitto_property_free_all(&properties);
            if (std::strcmp(message->topic, "echo/change") == 0) {
                mosquitto_publish_v5(self, nullptr, "echo-state/State.Bench", message->payloadlen, message->payload, 1,
                                     false, nullptr);
            }
            std::free(topic);
            std::free(correlation);
        });
    mosquitto_publish(handle.get(), nullptr, echoStatus, 6, "online", 1, true);
    for (const char* const topic : {"echo/set", "echo/change"}) mosquitto_subscribe(handle.get(), nullptr, topic, 0);
    return mosquitto_loop_forever(handle.get(), -1, 1);
}

std::string setRequest(const std::string& key, const std::string& value) {
    return "{\"param\":\"" + key + "\",\"value\":\"" + value + "\",\"source\":\"bench\"}";
}

/// A bare client with one outstanding request: sends the next one when the answer arrives.
class Client {
 public:
    Client(int port, int index) : name_("bench-" + std::to_string(index)), handle_(connected(port, name_, this)) {
        mosquitto_message_callback_set(handle_.get(), [](mosquitto*, void* self, const mosquitto_message* message) {
            static_cast<Client*>(self)->answered(*message);
        });
        mosquitto_subscribe_callback_set(handle_.get(), [](mosquitto*, void* self, int, int, const int*) {
            static_cast<Client*>(self)->subscribed_ = true;
        });
        mosquitto_subscribe(handle_.get(), nullptr, (name_ + "/reply").c_str(), 0);
        while (!subscribed_) mosquitto_loop(handle_.get(), -1, 1);
    }

    int socket() const { return mosquitto_socket(handle_.get()); }
    void read() {
        if (mosquitto_loop_read(handle_.get(), 1) != MOSQ_ERR_SUCCESS) throw std::runtime_error("connection lost");
        // Messages that a callback published are still queued.
        if (mosquitto_want_write(handle_.get())) mosquitto_loop_write(handle_.get(), 1);
    }
    void stop() { stopped_ = true; }
    bool isWaiting() const { return times_.size() < number_; }
    std::vector<double>& times() { return times_; }
    void begin(const std::string& request, const std::string& key) {
        request_ = request;
        key_ = key;
        times_.clear();
        number_ = 0;
        stopped_ = false;
        send();
    }

 private:
    void send() {
        ++number_;
        const std::string value = std::to_string(number_);
        const std::string payload = setRequest(key_, value);
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, (name_ + "/reply").c_str());
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, value.data(),
                                      static_cast<std::uint16_t>(value.size()));
        sentAt_ = Clock::now();
        mosquitto_publish_v5(handle_.get(), nullptr, request_.c_str(), static_cast<int>(payload.size()), payload.data(),
                             0, false, properties);
        mosquitto_property_free_all(&properties);
    }

    void answered(const mosquitto_message& message) {
        if (std::strstr(static_cast<const char*>(message.payload), "\"error\"") != nullptr) {
            throw std::runtime_error("a request was refused");
        }
        times_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sentAt_).count());
        if (!stopped_) send();
    }

    const std::string name_;
    const Handle handle_;
    std::string request_;
    std::string key_;
    std::size_t number_ = 0;
    bool subscribed_ = false;
    bool stopped_ = false;
    Clock::time_point sentAt_;
    std::vector<double> times_;  // microseconds, one for each answer
};

struct Result {
    double median = 0;     // microseconds
    double slow = 0;       // microseconds, 95th percentile
    double perSecond = 0;  // all clients together
    double fairness = 0;   // the slowest client's count divided by the fastest one's
    std::size_t lost = 0;
};

double quantile(std::vector<double>& values, double share) {
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(values.size()) * share);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

class Load {
 public:
    Load(int port, int count) : poll_(::epoll_create1(EPOLL_CLOEXEC)) {
        for (int index = 0; index < count; ++index) {
            clients_.push_back(std::make_unique<Client>(port, index));
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.ptr = clients_.back().get();
            ::epoll_ctl(poll_, EPOLL_CTL_ADD, clients_.back()->socket(), &event);
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;
    ~Load() { ::close(poll_); }

    Result run(const std::string& request, const std::string& stem, std::chrono::duration<double> duration) {
        const auto start = Clock::now();
        int index = 0;
        for (const auto& client : clients_) {
            // Keys of the expansion modules, so that few clients share a key.
            const std::string key = stem.find('%') == std::string::npos
                                        ? stem
                                        : stem.substr(0, stem.find('%')) + std::to_string(index % 3) + ".Keys." +
                                              std::to_string(index % 20) + ".Label";
            client->begin(request, key);
            ++index;
        }
        pump(std::chrono::duration_cast<Clock::duration>(duration), false);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        for (const auto& client : clients_) client->stop();
        Result result;
        std::size_t least = SIZE_MAX;
        std::size_t most = 0;
        std::vector<double> all;
        for (const auto& client : clients_) {
            least = std::min(least, client->times().size());
            most = std::max(most, client->times().size());
            all.insert(all.end(), client->times().begin(), client->times().end());
        }
        result.perSecond = static_cast<double>(all.size()) / seconds;
        result.median = quantile(all, 0.5);
        result.slow = quantile(all, 0.95);
        result.fairness = static_cast<double>(least) / static_cast<double>(most);
        pump(std::chrono::seconds(5), true);
        for (const auto& client : clients_) result.lost += client->isWaiting() ? 1U : 0U;
        return result;
    }

 private:
    void pump(Clock::duration duration, bool untilAnswered) {
        const auto end = Clock::now() + duration;
        std::array<epoll_event, many> ready;
        while (Clock::now() < end) {
            if (untilAnswered &&
                std::none_of(clients_.begin(), clients_.end(), [](const auto& c) { return c->isWaiting(); })) {
                return;
            }
            const int count = ::epoll_wait(poll_, ready.data(), static_cast<int>(ready.size()), 10);
            for (int index = 0; index < count; ++index) {
                static_cast<Client*>(ready.at(static_cast<std::size_t>(index)).data.ptr)->read();
            }
        }
    }

    const int poll_;
    std::vector<std::unique_ptr<Client>> clients_;
};

class Process {
 public:
    explicit Process(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }

 private:
    pid_t pid_ = -1;
};

double medianOf(std::vector<double> values) { return quantile(values, 0.5); }

/// Measures the phone's client, which waits for each answer and pauses before each request.
Result measureInTurn(ipc::IIPCClient& client, const std::string& topic, const std::string& key,
                     std::chrono::duration<double> duration, std::chrono::milliseconds pause) {
    const std::string status = topic.compare(0, 4, "echo") == 0 ? echoStatus : serviceStatus;
    std::vector<double> times;
    const auto start = Clock::now();
    for (auto now = start; now < start + duration;) {
        if (pause > pause.zero()) {
            ::poll(nullptr, 0, static_cast<int>(pause.count()));
            now = Clock::now();
        }
        const std::string answer =
            client.request(topic, setRequest(key, std::to_string(times.size())), status, std::chrono::seconds(5));
        if (answer.find("\"error\"") != std::string::npos) throw std::runtime_error("a request was refused");
        const auto end = Clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(end - now).count());
        now = end;
    }
    Result result;
    result.perSecond = static_cast<double>(times.size()) / std::chrono::duration<double>(Clock::now() - start).count();
    result.median = quantile(times, 0.5);
    result.slow = quantile(times, 0.95);
    result.fairness = 1;
    return result;
}

using Measurement = std::function<Result(const char* topic, const char* key)>;

void measure(const char* title, const char* stored, const Measurement& once) {
    struct Row {
        const char* name;
        const char* topic;
        const char* key;
        std::vector<double> times, slow, rates, fairness;
        std::size_t lost = 0;
    };
    std::vector<Row> rows{{"floor: echo responder", "echo/set", stored, {}, {}, {}, {}},
                          {"echo with a change", "echo/change", stored, {}, {}, {}, {}},
                          {"get", "prop-service/get", stored, {}, {}, {}, {}},
                          {"set of a state", "prop-service/set", "State.Provisioning.OnBootUp", {}, {}, {}, {}},
                          {"set, stored", "prop-service/set", stored, {}, {}, {}, {}}};
    for (int round = 0; round < rounds; ++round) {
        for (Row& row : rows) {
            const Result result = once(row.topic, row.key);
            row.times.push_back(result.median);
            row.slow.push_back(result.slow);
            row.rates.push_back(result.perSecond);
            row.fairness.push_back(result.fairness);
            row.lost += result.lost;
        }
    }
    std::printf("  %s\n", title);
    for (const Row& row : rows) {
        std::vector<double> slower, throughput;
        for (int round = 0; round < rounds; ++round) {
            const auto at = static_cast<std::size_t>(round);
            slower.push_back(row.times[at] / rows[0].times[at]);
            throughput.push_back(row.rates[at] / rows[0].rates[at]);
        }
        std::printf(
            "    %-28s median %7.1f us (%.2fx)  95%% within %7.1f us  %6.0f/s (%.2fx)  slowest/fastest %.2f  lost "
            "%zu\n",
            row.name, medianOf(row.times), medianOf(slower), medianOf(row.slow), medianOf(row.rates),
            medianOf(throughput), medianOf(row.fairness), row.lost);
    }
    std::fflush(stdout);
}

void measureAll(std::chrono::duration<double> duration) {
    std::string folder = "/tmp/bench-properties-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("cannot make a temporary directory");
    {
        const fakes::Broker broker("set_tcp_nodelay true\n");
        const int port = broker.port();
        const Process responder({std::filesystem::read_symlink("/proc/self/exe"), "--echo", std::to_string(port)});
        const Process service({PROP_SERVICE, "--host", address, "--port", std::to_string(port), "--store",
                               folder + "/s.db", "--catalogue", CATALOGUE});
        ::poll(nullptr, 0, 500);  // time for both to connect
        const auto bare = [&](int clients) {
            const auto load = std::make_shared<Load>(port, clients);
            return [=](const char* topic, const char* which) { return load->run(topic, which, duration); };
        };
        const auto client = ipc::IPCFactory::createInstanceShared("bench", address, true);
        client->watchPresence(echoStatus);
        client->watchPresence(serviceStatus);
        client->connect(broker.address());
        const char* const key = "System.General.Location";
        const auto phoneClient = [&](std::chrono::milliseconds pause) {
            return [&client, duration, pause](const char* topic, const char* which) {
                return measureInTurn(*client, topic, which, duration, pause);
            };
        };
        measure("the phone's client", key, phoneClient(std::chrono::milliseconds(0)));
        measure("the phone's client, with 3 ms between its requests", key, phoneClient(std::chrono::milliseconds(3)));
        measure("a bare client", key, bare(1));
        measure("64 bare clients at once", "PhoneUI.Expansion.%", bare(many));
    }
    std::filesystem::remove_all(folder);
}

void useFirstCpuOnly() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ::sched_setaffinity(0, sizeof one, &one);
}

}  // namespace

int main(int argc, char** argv) {
    mosquitto_lib_init();
    try {
        if (argc == 3 && std::string(argv[1]) == "--echo") return echo(std::atoi(argv[2]));
        const std::chrono::duration<double> duration(argc > 1 ? std::atof(argv[1]) : 0.25);
        cpu_set_t all;
        ::sched_getaffinity(0, sizeof all, &all);
        std::printf("All processes on one CPU\n");
        useFirstCpuOnly();
        measureAll(duration);
        std::printf("On %d CPUs\n", CPU_COUNT(&all));
        ::sched_setaffinity(0, sizeof all, &all);
        measureAll(duration);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_properties: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
