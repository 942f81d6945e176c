// Handlers shared by the tests of the bus service.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "BusFixtures.h"
#include "fakes/LogCapture.h"

namespace bustest {

inline bool logContains(const fakes::LogCapture& log, const std::string& text) {
    return log.text().find(text) != std::string::npos;
}

/// A handler that publishes a large change for each request.
struct LargeChanges {
    inline static const std::string large = std::string(60000, 'x');

    std::atomic<size_t> handled{0};
    std::atomic<bool> last{false};  // the request "last" has been handled

    ipc::IIPCService::Handler handler() {
        return [this](const std::vector<ipc::ServiceRequest>& requests) {
            std::vector<ipc::OutgoingMessage> messages;
            for (const auto& request : requests) {
                messages.push_back({"test-changes", large, "", 1});
                last = last || request.payload == "last";
            }
            handled += requests.size();
            return messages;
        };
    }
};

}  // namespace bustest
