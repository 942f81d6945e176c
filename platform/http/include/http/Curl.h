// The HTTP client that all downloads of a pass share.
//
// Threads: transfers run on the calling thread; the owner must run only one at a time. setProgressCallback, stopWith
// and getHttpCode may be called from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "common/StopSignal.h"

namespace zav {

/// What stands in for a server says to one request.
struct LocalAnswer {
    long status = 0;
    std::string file;  // path of the body, if the status is 200
};

/// Timeouts, clocks, and what stands in for the network. The daemon uses the defaults.
struct CurlSettings {
    std::chrono::seconds connectTimeout{30};  // name lookup, TCP and TLS handshake together
    std::chrono::seconds stallTimeout{120};   // without receiving a byte of the body

    // Called on the transferring thread.
    std::function<std::chrono::steady_clock::time_point()> steadyNow = &std::chrono::steady_clock::now;
    std::function<std::chrono::system_clock::time_point()> systemNow = &std::chrono::system_clock::now;

    bool sync = true;  // false: files need not survive a crash of the system

    // Answers requests in place of all servers; null: the network. Called on the transferring thread.
    std::function<LocalAnswer(const std::string& url)> standIn = nullptr;

    // Hears the end of each download, however it ends: its URL, a libcurl result code and the HTTP status (0: no
    // response). A URL that is malformed or not HTTP is not downloaded. Called on the transferring thread.
    std::function<void(const std::string& url, int result, long status)> onEnd = nullptr;
};

class Curl {
 public:
    using ProgressCallback = std::function<void(long, long, long, long)>;

    /// Holds a reference to libcurl's global initialisation, so that a cleanup elsewhere does not affect this client.
    /// Throws std::runtime_error if libcurl cannot be initialised.
    explicit Curl(CurlSettings settings = {});
    virtual ~Curl();

    /// As given to the constructor, for another client of the same kind.
    const CurlSettings& settings() const;

    /// The HTTP status of the last transfer; 0 if there was no response.
    virtual long getHttpCode() const;

    /// The callback runs during transfers, on the transferring thread. Its arguments are bytes: download total (0 if
    /// unknown), downloaded so far, upload total, uploaded so far; those of a resumed file count from its beginning. An
    /// empty function removes the callback. When this returns, the previous callback is not running and will not be
    /// called again; unless called from the callback itself, this waits for that.
    virtual void setProgressCallback(ProgressCallback callback);

    /// Sets the signal that stops downloads, the running one included. When it is stopped, there are no further
    /// attempts, and the pause before one ends. When it is overdue, the running transfer and all later ones fail with
    /// CURLE_ABORTED_BY_CALLBACK, within about a second. Null: never stops.
    virtual void stopWith(std::shared_ptr<common::StopSignal> signal);

    /// What a transfer uses of the client.
    struct State;

 private:
    friend class FileDownloader;
    std::unique_ptr<State> state_;
};

}  // namespace zav
