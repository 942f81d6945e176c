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
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fakes/HttpAnswer.h"
#include "fakes/TestAuthority.h"

namespace fakes {

/// What is wrong with a server before it reads a request.
enum class Flaw {
    none,
    oldTls,         // speaks TLS 1.1 at most
    tls12,          // speaks TLS 1.2 at most
    cutsHandshake,  // hangs up in the middle of it
    silent,         // accepts and says nothing
};

class HttpServer {
 public:
    using Handler = std::function<HttpAnswer(const HttpRequest&)>;

    HttpServer();
    /// TLS; the certificate is for 127.0.0.1 unless it is given.
    explicit HttpServer(const TestAuthority& authority);
    explicit HttpServer(const TestCertificate& certificate, Flaw flaw = Flaw::none);
    /// Plain, listening on `address` ("127.0.0.1" or "::1") and `port`; 0: a free one.
    HttpServer(const std::string& address, unsigned port, Flaw flaw = Flaw::none);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    unsigned port() const;
    /// "http://127.0.0.1:PORT" + path, "https" with TLS, "[::1]" where that is the address.
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
    /// Waits until so many connections were accepted; false when they never were.
    bool waitForConnections(std::size_t count = 1, std::chrono::milliseconds patience = std::chrono::seconds(20)) const;

 private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace fakes
