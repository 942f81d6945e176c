// What a scripted web server is asked, and what it answers: an honest answer, or one that stalls, cuts, lies or never
// ends. Values, for any thread; a Gate has its own synchronisation.
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

/// How a connection ends.
enum class Ending {
    orderly,             // TLS ends with close_notify
    withoutCloseNotify,  // TLS is cut
    reset,               // nothing that is under way arrives
};

/// What a server does with a connection that should be idle. `delivered` is reached once the client's
/// side has it, or has hung up.
struct Afterwards {
    std::string sends;
    bool closes = false;  // TLS, with close_notify
    std::shared_ptr<Gate> begin = std::make_shared<Gate>();
    std::shared_ptr<Gate> delivered = std::make_shared<Gate>();
};

struct HttpAnswer {
    int status = 200;
    HttpHeaders headers;  // besides Content-Length
    std::string body;
    std::optional<std::string> raw;  // sent instead of status line and headers, as it stands
    std::string repeated;            // sent after the body again and again, until the client hangs up

    std::shared_ptr<Gate> gate;                   // where it waits: before anything is sent, or
    std::optional<std::size_t> gateAfter;         // after the headers and so many bytes of the body
    std::optional<std::size_t> cutAfter;          // closes the connection after so many bytes of the body
    std::optional<std::uint64_t> declaredLength;  // a Content-Length that need not be true
    bool withoutLength = false;                   // none; the end of the connection is the end of the body
    bool endless = false;                         // the body again and again, without a length
    bool chunked = false;                         // the body in one chunk, without a length
    std::optional<Ending> ending;                 // closes the connection after the answer
    std::shared_ptr<Afterwards> afterwards;

    static HttpAnswer ok(std::string body, HttpHeaders headers = {});
    static HttpAnswer error(int status, std::string body = "a page\n");
    static HttpAnswer redirect(std::string location, int status = 302);
    /// The bytes as they stand, status line and headers included; the connection then ends.
    static HttpAnswer bytes(std::string raw, Ending ending = Ending::orderly);
    HttpAnswer heldBy(std::shared_ptr<Gate> where) const;
    HttpAnswer stallingAfter(std::size_t bytes, std::shared_ptr<Gate> where) const;
    HttpAnswer cutOffAfter(std::size_t bytes, Ending how = Ending::orderly) const;
    HttpAnswer followedBy(std::string endlessly) const;
    HttpAnswer with(std::shared_ptr<Afterwards> later) const;
};

}  // namespace fakes
