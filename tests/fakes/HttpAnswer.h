// Requests to a scripted web server and its answers: correct ones, and ones that stall, break off, are wrong or never
// end. Values without synchronisation; a Gate has its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fakes {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// Holds an answer until the test opens the gate.
class Gate {
 public:
    void open();
    /// Waits until an answer has reached the gate; returns false after `patience`.
    bool waitUntilReached(std::chrono::milliseconds patience = std::chrono::seconds(20));

 private:
    friend class HttpServer;
    bool pass();     // false: the server is shutting down
    void abandon();  // ends all waits; pass() then returns false

    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    bool reached_ = false;
    bool abandoned_ = false;
};

struct HttpRequest {
    std::string method;
    std::string target;  // as sent, with the query
    std::string path;    // without the query
    HttpHeaders headers;
    unsigned connection = 0;  // number of the connection, from 1
    std::string client;       // the common name in the client's certificate, "" if it presented none

    /// The value of the header, "" if it is missing. Names are case-insensitive.
    std::string header(const std::string& name) const;
};

/// How a connection ends.
enum class Ending {
    orderly,             // TLS ends with close_notify
    withoutCloseNotify,  // TLS ends without close_notify
    reset,               // TCP reset; data in flight is lost
};

/// What the server does on an idle connection after the answer. `delivered` is reached once the client has received it
/// or has closed the connection.
struct Afterwards {
    std::string sends;
    bool closes = false;  // TLS, with close_notify
    std::shared_ptr<Gate> begin = std::make_shared<Gate>();
    std::shared_ptr<Gate> delivered = std::make_shared<Gate>();
};

struct HttpAnswer {
    int status = 200;
    HttpHeaders headers;  // in addition to Content-Length
    std::string body;
    std::optional<std::string> raw;  // sent literally instead of status line and headers
    std::string repeated;            // sent repeatedly after the body, until the client closes the connection

    std::shared_ptr<Gate> gate;                   // where the answer waits: before sending anything, or
    std::optional<std::size_t> gateAfter;         // after the headers and this many bytes of the body
    std::optional<std::size_t> cutAfter;          // closes the connection after this many bytes of the body
    std::optional<std::uint64_t> declaredLength;  // a Content-Length that may be wrong
    bool withoutLength = false;                   // no Content-Length; the body ends with the connection
    bool endless = false;                         // repeats the body without end, without a length
    bool chunked = false;                         // sends the body as one chunk
    std::optional<Ending> ending;                 // closes the connection after the answer
    std::shared_ptr<Afterwards> afterwards;

    static HttpAnswer ok(std::string body, HttpHeaders headers = {});
    static HttpAnswer error(int status, std::string body = "a page\n");
    static HttpAnswer redirect(std::string location, int status = 302);
    /// Sends the bytes literally, including status line and headers, and closes the connection.
    static HttpAnswer bytes(std::string raw, Ending ending = Ending::orderly);
    HttpAnswer heldBy(std::shared_ptr<Gate> where) const;
    HttpAnswer stallingAfter(std::size_t bytes, std::shared_ptr<Gate> where) const;
    HttpAnswer cutOffAfter(std::size_t bytes, Ending how = Ending::orderly) const;
    HttpAnswer followedBy(std::string endlessly) const;
    HttpAnswer with(std::shared_ptr<Afterwards> later) const;
};

}  // namespace fakes
