// The service side of the Unix bus. Requests are handled, and answers and changes sent, on the link's thread.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "Link.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"

namespace {

using ipc::OutgoingMessage;
using ipc::ServiceRequest;
using unixbus::Frame;

constexpr std::size_t maxBatch = 64;
constexpr std::size_t maxUnacknowledged = 5000;
constexpr std::chrono::milliseconds stallLimit{500};
constexpr std::chrono::seconds drainLimit{10};

class Service final : public ipc::IIPCService, private unixbus::LinkListener {
 public:
    Service(std::string name, ipc::ServiceEvents events) : name_(std::move(name)), events_(std::move(events)) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() override { stop(); }

    void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
               Handler handler) override {
        if (link_) throw ipc::IPCException("The bus service cannot start twice");
        statusTopic_ = statusTopic;
        topics_ = topics;
        handler_ = std::move(handler);
        link_ = std::make_unique<unixbus::Link>(name_, statusTopic, static_cast<unixbus::LinkListener&>(*this));
        link_->open(host, true);
    }

    void stop() override {
        if (!link_ || stopping_.exchange(true)) return;
        {
            std::unique_lock<std::mutex> lock(mutex_);  // waits for a running handler
            const auto end = std::chrono::steady_clock::now() + drainLimit;
            for (std::size_t before = outbox_.size() + 1;
                 !outbox_.empty() && outbox_.size() < before && std::chrono::steady_clock::now() < end;) {
                before = outbox_.size();
                changed_.wait_for(lock, stallLimit, [this] { return outbox_.empty(); });
            }
            publish({statusTopic_, "offline", "", 0}, true);
            link_->send({"bye"});
        }
        link_->close();
    }

 private:
    struct Kept {
        std::string number;
        Frame frame;
    };

    /// With mutex_ held.
    void publish(const OutgoingMessage& message, bool retain) {
        const std::string number = std::to_string(next_++);
        const Frame frame{"publish",
                          number,
                          message.qualityOfService > 0 ? "1" : "0",
                          retain ? "1" : "0",
                          message.topic,
                          message.payload,
                          "",
                          message.correlationData};
        if (message.qualityOfService > 0) outbox_.push_back({number, frame});
        link_->send(frame);
    }

    // ---- on the link's thread ----

    void linkUp() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        link_->begin();
        for (std::size_t i = 0; i < topics_.size(); ++i) {
            link_->send({"subscribe", std::to_string(i), topics_[i]});
        }
        for (const Kept& each : outbox_) link_->send(each.frame);
        if (!stopping_) link_->send({"publish", "online", "1", "1", statusTopic_, "online", "", ""});
    }

    void linkDown() override {
        // The clients have given up the others.
        const auto isLost = [](const ServiceRequest& request) { return request.qualityOfService == 0; };
        inbox_.erase(std::remove_if(inbox_.begin(), inbox_.end(), isLost), inbox_.end());
    }

    void frameArrived(Frame& frame) override {
        if (frame.at(0) == "message" && !stopping_) {
            inbox_.push_back({frame.at(3), frame.at(4), frame.at(5), frame.at(6), frame.at(2) == "1" ? 1 : 0});
        } else if (frame.at(0) == "ack") {
            if (frame.at(1) == "online" && events_.online) events_.online();
            const std::lock_guard<std::mutex> lock(mutex_);
            if (!outbox_.empty() && outbox_.front().number == frame.at(1)) outbox_.pop_front();
            changed_.notify_all();
        }
    }

    void roundEnded() override {
        if (events_.alive) events_.alive();
        const std::lock_guard<std::mutex> lock(mutex_);
        while (!inbox_.empty() && !stopping_ && outbox_.size() < maxUnacknowledged) {
            const auto end = inbox_.begin() + static_cast<std::ptrdiff_t>(std::min(maxBatch, inbox_.size()));
            const std::vector<ServiceRequest> batch(std::make_move_iterator(inbox_.begin()),
                                                    std::make_move_iterator(end));
            inbox_.erase(inbox_.begin(), end);
            handle(batch);
            if (events_.alive) events_.alive();
        }
    }

    void handle(const std::vector<ServiceRequest>& batch) {
        try {
            for (const OutgoingMessage& message : handler_(batch)) {
                if (!message.topic.empty()) publish(message, false);
            }
        } catch (const std::exception& error) {
            dbg::Debug::error() << "Exception in the request handler: " << error.what() << std::endl;
        } catch (...) {
            dbg::Debug::error() << "Unknown exception in the request handler" << std::endl;
        }
    }

    const std::string name_;
    const ipc::ServiceEvents events_;
    // Constant once started.
    std::string statusTopic_;
    std::vector<std::string> topics_;
    Handler handler_;
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;  // also held while the handler runs
    std::condition_variable changed_;
    std::deque<Kept> outbox_;  // guarded by mutex_: not yet acknowledged
    std::uint64_t next_ = 1;   // guarded by mutex_

    std::deque<ServiceRequest> inbox_;  // the link's thread only
    std::unique_ptr<unixbus::Link> link_;
};

}  // namespace

std::unique_ptr<ipc::IIPCService> ipc::IPCFactory::createService(const std::string& clientName, ServiceEvents events) {
    return std::make_unique<Service>(clientName, std::move(events));
}
