#include "fakes/HttpAnswer.h"

#include <strings.h>

#include <algorithm>

namespace fakes {

void Gate::open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

bool Gate::waitUntilReached(std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [this] { return reached_; });
}

bool Gate::pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    reached_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_ || abandoned_; });
    return open_;
}

void Gate::abandon() {
    const std::lock_guard<std::mutex> lock(mutex_);
    abandoned_ = true;
    changed_.notify_all();
}

std::string HttpRequest::header(const std::string& name) const {
    const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto& header) {
        return strcasecmp(header.first.c_str(), name.c_str()) == 0;
    });
    return found == headers.end() ? "" : found->second;
}

HttpAnswer HttpAnswer::ok(std::string body, HttpHeaders headers) {
    HttpAnswer answer;
    answer.body = std::move(body);
    answer.headers = std::move(headers);
    return answer;
}

HttpAnswer HttpAnswer::error(int status, std::string body) {
    HttpAnswer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

HttpAnswer HttpAnswer::redirect(std::string location, int status) {
    HttpAnswer answer;
    answer.status = status;
    answer.headers = {{"Location", std::move(location)}};
    return answer;
}

HttpAnswer HttpAnswer::bytes(std::string raw, Ending ending) {
    HttpAnswer answer;
    answer.raw = std::move(raw);
    answer.ending = ending;
    return answer;
}

HttpAnswer HttpAnswer::heldBy(std::shared_ptr<Gate> where) const {
    HttpAnswer answer = *this;
    answer.gate = std::move(where);
    return answer;
}

HttpAnswer HttpAnswer::stallingAfter(std::size_t bytes, std::shared_ptr<Gate> where) const {
    HttpAnswer answer = heldBy(std::move(where));
    answer.gateAfter = bytes;
    return answer;
}

HttpAnswer HttpAnswer::cutOffAfter(std::size_t bytes, Ending how) const {
    HttpAnswer answer = *this;
    answer.cutAfter = bytes;
    answer.ending = how;
    return answer;
}

HttpAnswer HttpAnswer::followedBy(std::string endlessly) const {
    HttpAnswer answer = *this;
    answer.repeated = std::move(endlessly);
    return answer;
}

HttpAnswer HttpAnswer::with(std::shared_ptr<Afterwards> later) const {
    HttpAnswer answer = *this;
    answer.afterwards = std::move(later);
    return answer;
}

}  // namespace fakes
