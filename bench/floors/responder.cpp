// floor_responder PORT: the least that a property service does. Answers each request on echo/get with its own payload.
// On echo/set it publishes the change first, with quality of service 1. Like the service it gives no answer whose
// change it still holds back: the broker takes only so many unacknowledged changes. Prints "ready" once it is
// subscribed.
#include <algorithm>
#include <cstdio>
#include <deque>

#include "floors/BareClient.h"

namespace {

struct Request {
    bool isSet;
    std::string payload;
    std::string responseTopic;
    std::string correlation;
};

Request read(const mosquitto_message& message, const mosquitto_property* properties) {
    char* topic = nullptr;
    void* correlation = nullptr;
    std::uint16_t size = 0;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &size, false);
    Request request{std::string("echo/set") == message.topic,
                    {static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen)},
                    topic == nullptr ? "" : topic,
                    {static_cast<const char*>(correlation), size}};
    std::free(topic);
    std::free(correlation);
    return request;
}

class Responder {
 public:
    explicit Responder(int port)
        : client_(port, "floor-responder",
                  [this](const mosquitto_message& message, const mosquitto_property* properties) {
                      waiting_.push_back(read(message, properties));
                      answerWaiting();
                  }) {
        client_.onPublished([this](int identifier) {
            const auto change = std::find(unacknowledged_.begin(), unacknowledged_.end(), identifier);
            if (change == unacknowledged_.end()) return;  // an answer was sent
            unacknowledged_.erase(change);
            answerWaiting();
        });
        client_.subscribe("echo/#");
    }

    void step() { client_.step(); }

 private:
    void answerWaiting() {
        for (; !waiting_.empty() && unacknowledged_.size() < client_.receiveMaximum(); waiting_.pop_front()) {
            answer(waiting_.front());
        }
    }

    void answer(const Request& request) {
        const int size = static_cast<int>(request.payload.size());
        if (request.isSet) {
            int identifier = 0;
            mosquitto_publish_v5(client_.handle(), &identifier, "echo-state/State.Bench", size, request.payload.data(),
                                 1, false, nullptr);
            unacknowledged_.push_back(identifier);
        }
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, request.correlation.data(),
                                      static_cast<std::uint16_t>(request.correlation.size()));
        mosquitto_publish_v5(client_.handle(), nullptr, request.responseTopic.c_str(), size, request.payload.data(), 0,
                             false, properties);
        mosquitto_property_free_all(&properties);
    }

    floors::BareClient client_;
    std::deque<Request> waiting_;
    std::deque<int> unacknowledged_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        Responder responder(std::atoi(argv[1]));
        std::puts("ready");
        std::fflush(stdout);
        for (;;) responder.step();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor_responder: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
