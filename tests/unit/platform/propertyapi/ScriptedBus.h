// A fake bus that records requests and gives them the scripted answers, in order. It has no threads and no clock: it
// only records how long a call would wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ipc/IIPCClient.h"
#include "ipc/IPCException.h"

namespace propertytest {

using std::chrono::milliseconds;

class ScriptedBus final : public ipc::IIPCClient {
 public:
    using Answer = std::function<std::string()>;

    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string&, const std::string&, int) override {}
    void watchPresence(const std::string& statusTopic) override { watched = statusTopic; }
    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        milliseconds timeout) override {
        asked.push_back(topic);
        payloads.push_back(payload);
        timeouts.push_back(timeout);
        status = statusTopic;
        if (answers.empty()) throw ipc::IPCTimeoutException("nothing more to say");
        const Answer answer = answers.front();
        answers.pop_front();
        std::string text = answer();
        ++received;
        return text;
    }
    std::unique_ptr<ipc::IPCRequest> beginRequest(const std::string& topic, const std::string& payload,
                                                  const std::string& statusTopic, milliseconds timeout) override {
        begun.push_back(payload);
        answeredAtBeginning.push_back(asked.size());
        return IIPCClient::beginRequest(topic, payload, statusTopic, timeout);
    }
    bool waitForService(const std::string& statusTopic, milliseconds wait) override {
        asked.push_back("wait for " + statusTopic);
        waits.push_back(wait);
        return comesBack;
    }
    std::uint64_t responsesReceived() const override { return received; }
    void limitRequests(milliseconds requestLimit) override { limit = requestLimit; }

    std::deque<Answer> answers;  // empty: requests time out
    bool comesBack = true;
    std::uint64_t received = 0;

    std::vector<std::string> asked;  // topics of requests, and waits
    std::vector<std::string> payloads;
    std::vector<std::string> begun;                // payloads of requests whose response is awaited later
    std::vector<std::size_t> answeredAtBeginning;  // how many requests had been answered then
    std::vector<milliseconds> timeouts;
    std::vector<milliseconds> waits;
    std::optional<milliseconds> limit;
    std::string watched, status;
};

using Topics = std::vector<std::string>;

inline ScriptedBus::Answer value(const std::string& text) {
    return [text] { return R"({"param":"A.Key","value":")" + text + R"("})"; };
}

inline std::string broken() { throw ipc::IPCInterruptedException("the connection was lost"); }
inline std::string offline() { throw ipc::IPCOfflineException("the service is offline"); }
inline std::string lost() { throw ipc::IPCServiceLostException("the service went offline"); }
inline std::string late() { throw ipc::IPCTimeoutException("no answer in time"); }

/// Whether a recorded time-out is the expected one. A call may have used some of its time before it was recorded; this
/// still distinguishes 1, 2 and 5 s.
inline bool isAbout(milliseconds actual, milliseconds expected) { return actual <= expected && actual > expected / 2; }

}  // namespace propertytest
