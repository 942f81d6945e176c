#include "Service.h"

#include <exception>
#include <utility>

#include "Thread.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

// Beyond either the socket is left unread until the handler has caught up: senders wait, nothing is dropped.
constexpr std::size_t maxRequests = 100000;
constexpr std::size_t maxBytes = std::size_t{32} * 1024 * 1024;

}  // namespace

Service::Service(std::string name) : name_(std::move(name)) {}

Service::~Service() { stop(); }

void Service::start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
                    Handler handler) {
    if (connection_) throw IPCException("The bus service starts once only");
    Connection::Options options;
    options.clientId = name_;
    options.userName = name_;
    options.statusTopic = statusTopic;
    options.logsItself = true;
    handler_ = std::move(handler);
    connection_ = std::make_unique<Connection>(options, static_cast<ConnectionListener&>(*this));
    // A retained request would be carried out again on every connection.
    for (const std::string& topic : topics) connection_->subscribe(topic, 1, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    thread_ = startThread("ipc-service", [this] { handleRequests(); });
    connection_->open(host, true);
}

void Service::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        inbox_.clear();
        inboxBytes_ = 0;
    }
    changed_.notify_all();
    if (!connection_) return;
    connection_->stopWaiting();
    if (thread_.joinable()) thread_.join();
    connection_->close();
}

bool Service::messageArrived(const Incoming& message) {
    ServiceRequest request{std::string(message.topic), std::string(message.payload), message.responseTopic(),
                           message.correlationData(), message.qualityOfService};
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return true;
    inboxBytes_ += request.topic.size() + request.payload.size();
    inbox_.push_back(std::move(request));
    changed_.notify_one();
    const bool full = inbox_.size() >= maxRequests || inboxBytes_ >= maxBytes;
    if (full && !paused_) {
        dbg::Debug::warning() << "Requests come faster than they are handled; the rest has to wait" << std::endl;
    }
    paused_ = paused_ || full;
    return !paused_;
}

void Service::handleRequests() {
    std::vector<ServiceRequest> batch;
    for (;;) {
        bool resume = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || !inbox_.empty(); });
            if (stopping_) return;
            batch.clear();
            batch.swap(inbox_);
            inboxBytes_ = 0;
            resume = paused_;
            paused_ = false;
        }
        if (resume) connection_->resumeReading();
        answer(batch);
    }
}

void Service::answer(const std::vector<ServiceRequest>& batch) noexcept {
    std::vector<OutgoingMessage> outgoing;
    try {
        outgoing = handler_(batch);
    } catch (const std::exception& error) {
        dbg::Debug::error() << "Exception in the request handler: " << error.what() << std::endl;
    } catch (...) {
        dbg::Debug::error() << "Unknown exception in the request handler" << std::endl;
    }
    for (OutgoingMessage& message : outgoing) {
        if (message.topic.empty()) continue;  // the answer to a request that wanted none
        try {
            if (message.qualityOfService > 0 && !connection_->waitForRoom()) return;
            connection_->publish(
                {message.topic, message.payload, message.qualityOfService, {}, std::move(message.correlationData)});
        } catch (const std::exception& error) {
            // A response topic is whatever the requester wrote: one bad answer must not cost the others theirs.
            dbg::Debug::warning() << "Cannot send on " << message.topic << ": " << error.what() << std::endl;
        }
    }
}

}  // namespace ipc
