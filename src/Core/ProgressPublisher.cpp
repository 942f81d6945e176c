#include "Core/ProgressPublisher.h"

#include <utility>

#include "Core/Constants.h"

namespace zav {

ProgressPublisher::ProgressPublisher(std::shared_ptr<ipc::IIPCClient> bus, Now now)
    : bus_(std::move(bus)), now_(std::move(now)) {}

ProgressPublisher::Job::Job(ProgressPublisher* publisher, const std::string& name, const char* unit,
                            std::uint64_t total)
    : publisher_(publisher),
      outer_(publisher == nullptr ? nullptr : publisher->job_),
      name_(name),
      unit_(unit),
      total_(total) {
    if (publisher_ == nullptr) return;
    publisher_->job_ = this;
    publisher_->publish(*this);
}

ProgressPublisher::Job::~Job() {
    if (publisher_ == nullptr) return;
    publisher_->publish(*this);
    publisher_->job_ = outer_;
}

void ProgressPublisher::report(std::uint64_t done, std::uint64_t total) {
    if (job_ == nullptr) return;
    job_->done_ = done;
    job_->total_ = total;
    if (now_() >= nextReport_) publish(*job_);
}

void ProgressPublisher::publish(const Job& job) noexcept {
    nextReport_ = now_() + interval;
    try {
        const std::string value = std::to_string(job.done_) + "/" + std::to_string(job.total_) + " " + job.unit_;
        bus_->publishSoon(constants.progressTopic, R"({"param":")" + job.name_ + R"(","value":")" + value + R"("})");
    } catch (...) {  // whoever watches misses one of many messages
    }
}

}  // namespace zav
