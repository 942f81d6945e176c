// The HTTP client that a pass shares among all its downloads.
//
// Threads: transfers run on the calling thread, one at a time; the owner sees to that. setProgressCallback, stopWith
// and getHttpCode may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/StopSignal.h"
#include "http/CurlSettings.h"

namespace zav {

class Curl {
 public:
    using ProgressCallback = std::function<void(long, long, long, long)>;

    /// Takes a reference on libcurl's global initialisation, so that a clean-up elsewhere cannot pull it away.
    Curl();
    explicit Curl(CurlSettings settings);
    virtual ~Curl();
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;

    /// The HTTP status of the latest transfer; 0 when there was no answer.
    virtual long getHttpCode() const;

    /// Called during transfers, on the transferring thread, with libcurl's four numbers: download total, downloaded so
    /// far, upload total, uploaded so far (bytes of the whole file, also when it is resumed). An empty function
    /// takes the callback back; once this returns, the old one does not run any more and will not be called again.
    virtual void setProgressCallback(ProgressCallback callback);

    /// Obeys `signal` from now on, also in a download that is running. Once it is given, the pause between two
    /// attempts ends at once and no further attempt is made; once it is overdue, the running transfer and all later
    /// ones fail with CURLE_ABORTED_BY_CALLBACK, within about a second. Null: never stops.
    virtual void stopWith(std::shared_ptr<common::StopSignal> signal);

 private:
    friend class Transfer;  // platform/http/src: the one user of the handle
    friend class Download;  // likewise: obeys the settings and the stop signal
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace zav
