// The bus service over one Connection. The handler runs on the network thread: handing requests to another thread would
// cost a good part of a request's latency. Requests that arrive together are handled in one batch, and the messages
// that the handler returns are sent together, in order.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <utility>

#include "Connection.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"

namespace ipc {

namespace {

// Beyond either limit reading pauses until the pending messages are sent: senders wait, and nothing is dropped.
constexpr std::size_t maxRequests = 25000;
constexpr std::size_t maxBytes = std::size_t{16} * 1024 * 1024;
// The socket is read while acknowledgements are outstanding; beyond this multiple of the limits, requests are dropped.
constexpr std::size_t hardLimitFactor = 4;
// Requests in one call of the handler. Kept small, as responses can be large.
constexpr std::size_t maxBatch = 64;
// `stop` gives up when the broker takes nothing for the first time, or after the second in all.
constexpr std::chrono::milliseconds drainStallTimeout{500};
constexpr std::chrono::seconds drainTimeout{10};

class Service final : public IIPCService, private ConnectionListener {
 public:
    Service(std::string name, ServiceEvents events) : name_(std::move(name)), events_(std::move(events)) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() override { stop(); }

    void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
               Handler handler) override {
        if (connection_) throw IPCException("The bus service cannot start twice");
        handler_ = std::move(handler);
        statusTopic_ = statusTopic;
        const Connection::Options options{name_, name_, /* keepSession */ false, statusTopic, /* logsEvents */ true};
        connection_ = std::make_unique<Connection>(options, static_cast<ConnectionListener&>(*this));
        // A retained request would be executed again on every connection.
        for (const std::string& topic : topics) connection_->subscribe(topic, 2, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
        connection_->open(host, true);
    }

    void stop() override {
        const bool first = !stopping_.exchange(true);
        if (!connection_) return;
        if (first) {
            // Executed requests must be answered, and their changes published, before "offline".
            const common::LockGuard lock(round_);
            waitUntilDrained();
        }
        connection_->close();
    }

 private:
    void waitUntilDrained() REQUIRES(round_) {
        const auto end = Connection::Clock::now() + drainTimeout;
        std::size_t left = outstanding();
        for (std::size_t before = SIZE_MAX; left > 0 && left < before && Connection::Clock::now() < end;
             left = outstanding()) {
            before = left;
            drained_.waitFor(round_, drainStallTimeout, [this]() REQUIRES(round_) { return outstanding() == 0; });
        }
        if (left > 0) {
            dbg::Debug::warning() << "The broker has not accepted the last " << left << " answers and changes"
                                  << std::endl;
        }
    }

    std::size_t outstanding() const REQUIRES(round_) { return outbox_.size() + connection_->outstanding(); }

    // ---- on the network thread ----

    void connecting() override { alive(); }
    void connectionReady() override {}
    void messageAcknowledged(const std::string& topic) override {
        if (topic == statusTopic_ && !stopping_) online_ = true;
    }

    void connectionLost(const std::string&) override {
        // The clients see "offline" before the next connection and give up these requests.
        const auto lost = [](const ServiceRequest& request) { return request.qualityOfService == 0; };
        inbox_.erase(std::remove_if(inbox_.begin(), inbox_.end(), lost), inbox_.end());
        inboxBytes_ = 0;
        for (const ServiceRequest& request : inbox_) inboxBytes_ += sizeOf(request);
        paused_ = false;
    }

    bool messageArrived(const Incoming& message) override {
        if (stopping_) return true;
        if (isFull(hardLimitFactor)) {
            if (!dropping_) {
                dbg::Debug::error() << "Dropping requests: they arrive faster than the broker acknowledges changes"
                                    << std::endl;
            }
            dropping_ = true;
            return true;
        }
        inbox_.push_back({std::string(message.topic), std::string(message.payload), message.responseTopic(),
                          message.correlationData(), message.qualityOfService});
        inboxBytes_ += sizeOf(inbox_.back());
        paused_ = isFull(1);
        return !paused_;
    }

    void roundEnded() override {
        if (std::exchange(online_, false) && events_.online) events_.online();
        alive();
        const common::LockGuard lock(round_);
        while (send() && !inbox_.empty() && !stopping_) {
            handleBatch();
            alive();
        }
        if (stopping_) drained_.notifyAll();
        if (!isFull(1)) dropping_ = false;
        if (paused_ && (!isFull(1) || connection_->congestion() == Congestion::unacknowledged)) {
            paused_ = false;
            connection_->resumeReading();
        }
    }

    void alive() const {
        if (events_.alive) events_.alive();
    }

    bool isFull(std::size_t times) const {
        return inbox_.size() >= times * maxRequests || inboxBytes_ >= times * maxBytes;
    }

    void handleBatch() noexcept REQUIRES(round_) {
        batch_.clear();
        while (!inbox_.empty() && batch_.size() < maxBatch) {
            inboxBytes_ -= sizeOf(inbox_.front());
            batch_.push_back(std::move(inbox_.front()));
            inbox_.pop_front();
        }
        try {
            for (OutgoingMessage& message : handler_(batch_)) outbox_.push_back(std::move(message));
        } catch (const std::exception& error) {
            dbg::Debug::error() << "Exception in the request handler: " << error.what() << std::endl;
        } catch (...) {
            dbg::Debug::error() << "Unknown exception in the request handler" << std::endl;
        }
    }

    /// Returns whether all messages were sent; if not, the rest waits for the broker.
    bool send() REQUIRES(round_) {
        for (; !outbox_.empty(); outbox_.pop_front()) {
            // Beyond what the broker takes at once a response would overtake the change that comes before it.
            if (connection_->congestion() != Congestion::none) return false;
            const OutgoingMessage& message = outbox_.front();
            if (message.topic.empty()) continue;  // the request had no response topic
            try {
                connection_->publish(
                    {message.topic, message.payload, message.qualityOfService, {}, message.correlationData},
                    outbox_.size() > 1 ? Departure::withNext : Departure::atOnce);
            } catch (const std::exception& error) {
                // The requester chose the response topic: an invalid one must not stop the other responses.
                dbg::Debug::warning() << "Cannot send on " << message.topic << ": " << error.what() << std::endl;
            }
        }
        return true;
    }

    const std::string name_;
    const ServiceEvents events_;
    Handler handler_;                         // constant once started
    std::string statusTopic_;                 // constant once started
    std::unique_ptr<Connection> connection_;  // constant once started
    std::atomic<bool> stopping_{false};

    common::Mutex round_;  // held while requests are handled and answered
    common::ConditionVariable drained_;
    std::deque<OutgoingMessage> outbox_ GUARDED_BY(round_);

    // The network thread's own.
    std::deque<ServiceRequest> inbox_;
    std::size_t inboxBytes_ = 0;
    std::vector<ServiceRequest> batch_;
    bool paused_ = false;
    bool dropping_ = false;
    bool online_ = false;  // accepted by the broker and not yet reported
};

}  // namespace

std::unique_ptr<IIPCService> IPCFactory::createService(const std::string& clientName, ServiceEvents events) {
    return std::make_unique<Service>(clientName, std::move(events));
}

}  // namespace ipc
