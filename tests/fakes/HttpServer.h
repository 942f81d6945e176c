// A web server inside the test, on 127.0.0.1 and a free port, with scripted answers and faults: it can stall, break
// off, send wrong lengths or endless bodies, and redirect. It records its requests.
//
//     fakes::HttpServer server;
//     server.on("/provisioning.xml", fakes::HttpAnswer::ok("<xml/>"));
//     server.on("/flaky", {fakes::HttpAnswer::error(500), fakes::HttpAnswer::ok("second time")});
//     auto gate = std::make_shared<fakes::Gate>();
//     server.on("/slow", fakes::HttpAnswer::ok("…").heldBy(gate));   // answers after gate->open()
//
// HTTP/1.1 with keep-alive, GET and HEAD; a path without a script gets 404. The constructor makes the process ignore
// SIGPIPE. Any thread may call it. One thread accepts connections and one serves each connection; the destructor ends
// them all, including those that wait at a gate.
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

/// A fault before the server reads a request.
enum class Flaw {
    none,
    oldTls,         // speaks TLS 1.1 at most
    tls12,          // speaks TLS 1.2 at most
    cutsHandshake,  // closes the connection during the handshake
    silent,         // accepts and sends nothing
};

class HttpServer {
 public:
    using Handler = std::function<HttpAnswer(const HttpRequest&)>;

    HttpServer();
    /// TLS; the authority issues a certificate for 127.0.0.1.
    explicit HttpServer(const TestAuthority& authority);
    explicit HttpServer(const TestCertificate& certificate, Flaw flaw = Flaw::none);
    /// TLS; asks the client for a certificate of `clients`, and serves clients without one, too.
    HttpServer(const TestAuthority& authority, const TestAuthority& clients);
    /// Without TLS, listening on `address` ("127.0.0.1" or "::1") and `port` (0: a free one).
    HttpServer(const std::string& address, unsigned port, Flaw flaw = Flaw::none);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    unsigned port() const;
    /// "http://127.0.0.1:PORT" + path, with "https" for TLS and "[::1]" for IPv6.
    std::string url(const std::string& path) const;

    /// Sets the answer for the path.
    void on(const std::string& path, HttpAnswer answer);
    /// One answer per request, in this order; the last one is repeated.
    void on(const std::string& path, std::vector<HttpAnswer> answers);
    /// `handler` makes each answer, on the connection's thread.
    void handle(const std::string& path, Handler handler);

    /// All requests so far, in order of arrival.
    std::vector<HttpRequest> requests() const;
    std::vector<HttpRequest> requestsFor(const std::string& path) const;
    /// Waits until the path was requested `count` times; returns false after `patience`.
    bool waitForRequests(const std::string& path, std::size_t count = 1,
                         std::chrono::milliseconds patience = std::chrono::seconds(20)) const;
    /// Waits until `count` connections were accepted; returns false after `patience`.
    bool waitForConnections(std::size_t count = 1, std::chrono::milliseconds patience = std::chrono::seconds(20)) const;

 private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace fakes
