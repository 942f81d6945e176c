// A web server inside the test, on 127.0.0.1 and a free port, that misbehaves as it is told to: it stalls, cuts, lies
// about lengths, never ends, redirects, and remembers what it was asked.
//
//     fakes::HttpServer server;
//     server.on("/provisioning.xml", fakes::HttpAnswer::ok("<xml/>"));
//     server.on("/flaky", {fakes::HttpAnswer::error(500), fakes::HttpAnswer::ok("second time")});
//     auto gate = std::make_shared<fakes::Gate>();
//     server.on("/slow", fakes::HttpAnswer::ok("…").heldBy(gate));   // answers once gate->open() was called
//
// HTTP/1.1 with keep-alive, GET and HEAD; a path without a script is 404. The process ignores SIGPIPE from here on.
// Threads: everything may be called from any thread; one thread accepts, one serves each connection, and the
// destructor ends them all, those that wait at a gate included.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fakes/TestAuthority.h"

namespace fakes {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// Where an answer waits until the test lets it go.
class Gate {
 public:
    void open();
    /// Waits until somebody stands at the gate; false when nobody ever came.
    bool waitUntilReached(std::chrono::milliseconds patience = std::chrono::seconds(20));

 private:
    friend class HttpServer;
    bool pass();     // false: the server is going
    void abandon();  // lets everybody go without passing

    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    bool reached_ = false;
    bool abandoned_ = false;
};

struct HttpRequest {
    std::string method;
    std::string target;  // as it was sent, with the query
    std::string path;    // without it
    HttpHeaders headers;
    unsigned connection = 0;  // 1 for the first connection that the server accepted, and so on

    /// The header's value, "" when there is none. Names are compared without case.
    std::string header(const std::string& name) const;
};

struct HttpAnswer {
    int status = 200;
    HttpHeaders headers;  // besides Content-Length
    std::string body;

    std::shared_ptr<Gate> gate;                   // where it waits: before anything is sent, or
    std::optional<std::size_t> gateAfter;         // after the headers and so many bytes of the body
    std::optional<std::size_t> cutAfter;          // closes the connection after so many bytes of the body
    std::optional<std::uint64_t> declaredLength;  // a Content-Length that need not be true
    bool withoutLength = false;                   // none; the end of the connection is the end of the body
    bool endless = false;                         // the body again and again, without a length

    static HttpAnswer ok(std::string body, HttpHeaders headers = {});
    static HttpAnswer error(int status, std::string body = "a page\n");
    static HttpAnswer redirect(std::string location, int status = 302);
    HttpAnswer heldBy(std::shared_ptr<Gate> where) const;
    HttpAnswer stallingAfter(std::size_t bytes, std::shared_ptr<Gate> where) const;
    HttpAnswer cutOffAfter(std::size_t bytes) const;
};

class HttpServer {
 public:
    using Handler = std::function<HttpAnswer(const HttpRequest&)>;

    HttpServer();
    /// TLS; the certificate is for 127.0.0.1 unless it is given.
    explicit HttpServer(const TestAuthority& authority);
    explicit HttpServer(const TestCertificate& certificate);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    unsigned port() const;
    /// "http://127.0.0.1:PORT" + path, "https" with TLS.
    std::string url(const std::string& path) const;

    /// The answer for the path from now on.
    void on(const std::string& path, HttpAnswer answer);
    /// One answer a request, in this order; the last one stays.
    void on(const std::string& path, std::vector<HttpAnswer> answers);
    /// The answer is made from the request, on the connection's thread.
    void handle(const std::string& path, Handler handler);

    /// All requests so far, in the order in which they came.
    std::vector<HttpRequest> requests() const;
    std::vector<HttpRequest> requestsFor(const std::string& path) const;
    /// Waits until the path was asked for `count` times; false when it never was.
    bool waitForRequests(const std::string& path, std::size_t count = 1,
                         std::chrono::milliseconds patience = std::chrono::seconds(20)) const;

 private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace fakes
