// Measures the round trip of property reads and writes over a private broker, and two floors in the same run: four
// plain hops over loopback TCP between three threads, and an MQTT client on libmosquitto's own network thread. Prints
// median, 99th percentile and mean in microseconds.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fakes/Broker.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int rounds = 4000;

void report(const char* name, const std::function<void()>& once) {
    for (int i = 0; i < 200; ++i) once();
    std::vector<double> times(rounds);
    const auto begin = Clock::now();
    for (double& time : times) {
        const auto start = Clock::now();
        once();
        time = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    }
    const double total = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    std::sort(times.begin(), times.end());
    std::printf("%-58s median %6.1f  99%% %7.1f  mean %6.1f us\n", name, times[rounds / 2], times[rounds * 99 / 100],
                total / rounds);
    std::fflush(stdout);
}

/// A connected pair of loopback TCP sockets with TCP_NODELAY.
std::array<int, 2> tcpPair() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int one = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, generic, size) != 0 || listen(listener, 1) != 0 || getsockname(listener, generic, &size) != 0 ||
        connect(one, generic, size) != 0) {
        throw std::runtime_error("Cannot make a loopback connection");
    }
    const int two = accept(listener, nullptr, nullptr);
    close(listener);
    const int on = 1;
    for (const int fd : {one, two}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return {one, two};
}

bool pass(int from, int to) {
    char buffer[256];
    const ssize_t size = recv(from, buffer, sizeof buffer, 0);
    return size > 0 && send(to, buffer, static_cast<size_t>(size), MSG_NOSIGNAL) == size;
}

void plainHops() {
    const auto client = tcpPair();   // client, broker
    const auto service = tcpPair();  // broker, service
    std::thread broker([&] {
        while (pass(client[1], service[0]) && pass(service[0], client[1])) {
        }
    });
    std::thread echo([&] {
        while (pass(service[1], service[1])) {
        }
    });
    const char request[90] = "";
    report("floor: four plain hops over TCP, three threads", [&] {
        char answer[256];
        if (send(client[0], request, sizeof request, 0) <= 0 || recv(client[0], answer, sizeof answer, 0) <= 0) {
            throw std::runtime_error("A hop lost its connection");
        }
    });
    for (const int fd : {client[0], service[0]}) shutdown(fd, SHUT_RDWR);
    broker.join();
    echo.join();
    for (const int fd : {client[0], client[1], service[0], service[1]}) close(fd);
}

/// A client that uses libmosquitto directly, with its own network thread.
class Plain {
 public:
    Plain(int port, const char* name, const char* filter, std::function<void(Plain&)> onMessage)
        : onMessage_(std::move(onMessage)), handle_(mosquitto_new(name, true, this)) {
        mosquitto_int_option(handle_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(handle_, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_subscribe_callback_set(
            handle_, [](mosquitto*, void* self, int, int, const int*) { static_cast<Plain*>(self)->signal(); });
        mosquitto_message_callback_set(handle_, [](mosquitto*, void* self, const mosquitto_message*) {
            auto& plain = *static_cast<Plain*>(self);
            plain.onMessage_(plain);
        });
        if (mosquitto_connect(handle_, "127.0.0.1", port, 60) != 0)
            throw std::runtime_error("Cannot connect to the broker");
        mosquitto_loop_start(handle_);
        mosquitto_subscribe(handle_, nullptr, filter, 0);
        wait();
    }
    ~Plain() {
        mosquitto_disconnect(handle_);
        mosquitto_loop_stop(handle_, false);
        mosquitto_destroy(handle_);
    }
    void publish(const char* topic) { mosquitto_publish(handle_, nullptr, topic, 60, payload_, 0, false); }
    void signal() {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++signals_;
        changed_.notify_one();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return signals_ > 0; });
        --signals_;
    }

 private:
    const char payload_[60] = "";
    const std::function<void(Plain&)> onMessage_;
    mosquitto* const handle_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int signals_ = 0;
};

void libraryThreads(int port) {
    Plain service(port, "plain-service", "plain/ask", [](Plain& self) { self.publish("plain/answer"); });
    Plain client(port, "plain-client", "plain/answer", [](Plain& self) { self.signal(); });
    report("floor: libmosquitto alone, its own threads, QoS 0", [&] {
        client.publish("plain/ask");
        client.wait();
    });
}

class Ignore : public ipc::IIPCCallback {
    void connectionLost(const std::string&) override {}
    void messageArrived(const std::string&, const std::string&) override {}
    void deliveryComplete(const std::string&) override {}
};

void properties(const char* broker, const std::string& address) {
    const auto service = ipc::IPCFactory::createService("prop-service");
    service->start(
        address, "prop-service/status", {"prop-service/get", "prop-service/set"},
        [](const std::vector<ipc::ServiceRequest>& requests) {
            std::vector<ipc::OutgoingMessage> answers;
            for (const auto& request : requests) {
                if (request.topic == "prop-service/set") {
                    answers.push_back({"prop-service-state/State.Bench.Key",
                                       R"({"param":"State.Bench.Key","value":"1","source":"bench"})", "", 1});
                }
                answers.push_back({request.responseTopic, R"({"param":"State.Bench.Key","value":"1"})",
                                   request.correlationData, request.qualityOfService});
            }
            return answers;
        });
    const auto bus = ipc::IPCFactory::createInstanceShared("bench", "localhost", false);
    const auto api = propertyapi::PropertyApiBuilder::getPropertyApi(bus, "bench");
    Ignore ignore;
    bus->subscribe("prop-service-state/#", ignore);
    bus->connect(address);
    for (;;) {
        try {
            api->get("State.Bench.Key");
            break;
        } catch (const propertyapi::PropertyOfflineException&) {
            std::this_thread::yield();  // the service is still connecting
        }
    }
    report((std::string("property get, ") + broker).c_str(), [&] { api->get("State.Bench.Key"); });
    report((std::string("property set with its change delivered, ") + broker).c_str(),
           [&] { api->set("State.Bench.Key", "1"); });
    bus->disconnect();
    service->stop();
}

}  // namespace

int main() {
    try {
        mosquitto_lib_init();
        plainHops();
        {
            fakes::Broker broker("set_tcp_nodelay true\n");
            libraryThreads(broker.port());
            properties("broker with TCP_NODELAY", broker.address());
        }
        fakes::Broker broker;
        properties("broker with its defaults", broker.address());
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
