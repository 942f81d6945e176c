// The HTTP client that a pass shares among all its downloads.
//
// Threads: transfers run on the calling thread, one at a time; the owner sees to that. setProgressCallback and
// getHttpCode may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace zav {

class Curl {
 public:
    using ProgressCallback = std::function<void(long, long, long, long)>;

    /// Takes a reference on libcurl's global initialisation, so that a clean-up elsewhere cannot pull it away.
    Curl();
    virtual ~Curl();
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;

    /// The HTTP status of the latest transfer; 0 when there was no answer.
    virtual long getHttpCode() const;

    /// Called during transfers, on the transferring thread, with libcurl's four numbers: download total, downloaded so
    /// far, upload total, uploaded so far (bytes of the whole file, also when it is resumed). An empty function
    /// takes the callback back; once this returns, the old one does not run any more and will not be called again.
    virtual void setProgressCallback(ProgressCallback callback);

 private:
    friend class Transfer;  // platform/http/src: the one user of the handle
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace zav
