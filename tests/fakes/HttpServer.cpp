#include "fakes/HttpServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace fakes {

namespace {

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

std::shared_ptr<SSL_CTX> makeTls(const TestCertificate& shown) {
    std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> certificateText(BIO_new_mem_buf(shown.certificate.data(), -1),
                                                                    &BIO_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> keyText(BIO_new_mem_buf(shown.key.data(), -1), &BIO_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_bio_X509(certificateText.get(), nullptr, nullptr, nullptr), &X509_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PrivateKey(keyText.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    if (SSL_CTX_use_certificate(tls.get(), certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(tls.get(), key.get()) != 1) {
        throw std::runtime_error("HttpServer: certificate refused");
    }
    return tls;
}

std::string reasonOf(int status) { return status == 200 ? "OK" : "Scripted"; }

}  // namespace

void Gate::open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

bool Gate::waitUntilReached(std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [this] { return reached_; });
}

bool Gate::pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    reached_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_ || abandoned_; });
    return open_;
}

void Gate::abandon() {
    const std::lock_guard<std::mutex> lock(mutex_);
    abandoned_ = true;
    changed_.notify_all();
}

std::string HttpRequest::header(const std::string& name) const {
    const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto& header) {
        return strcasecmp(header.first.c_str(), name.c_str()) == 0;
    });
    return found == headers.end() ? "" : found->second;
}

HttpAnswer HttpAnswer::ok(std::string body, HttpHeaders headers) {
    HttpAnswer answer;
    answer.body = std::move(body);
    answer.headers = std::move(headers);
    return answer;
}

HttpAnswer HttpAnswer::error(int status, std::string body) {
    HttpAnswer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

HttpAnswer HttpAnswer::redirect(std::string location, int status) {
    HttpAnswer answer;
    answer.status = status;
    answer.headers = {{"Location", std::move(location)}};
    return answer;
}

HttpAnswer HttpAnswer::heldBy(std::shared_ptr<Gate> where) const {
    HttpAnswer answer = *this;
    answer.gate = std::move(where);
    return answer;
}

HttpAnswer HttpAnswer::stallingAfter(std::size_t bytes, std::shared_ptr<Gate> where) const {
    HttpAnswer answer = heldBy(std::move(where));
    answer.gateAfter = bytes;
    return answer;
}

HttpAnswer HttpAnswer::cutOffAfter(std::size_t bytes) const {
    HttpAnswer answer = *this;
    answer.cutAfter = bytes;
    return answer;
}

struct HttpServer::State {
    struct Connection {
        int fd = -1;
        SSL* tls = nullptr;  // the serving thread's
        unsigned number = 0;
        std::string unread;
        std::thread thread;
    };

    explicit State(std::shared_ptr<SSL_CTX> context);
    ~State();
    void accept();
    void serve(Connection& connection);
    bool readRequest(Connection& connection, HttpRequest& request) const;
    HttpAnswer answerTo(const HttpRequest& request);
    bool send(Connection& connection, const HttpRequest& request, const HttpAnswer& answer);
    bool sendBody(Connection& connection, const HttpAnswer& answer);
    bool stand(const std::shared_ptr<Gate>& gate);
    static bool write(const Connection& connection, const char* data, std::size_t length);
    static long read(const Connection& connection, char* buffer, std::size_t length);

    const std::shared_ptr<SSL_CTX> tls;
    int listener = -1;
    unsigned port = 0;
    std::thread acceptor;

    mutable std::mutex mutex;
    mutable std::condition_variable requested;
    // Guarded by mutex.
    bool stopping = false;
    std::list<Connection> connections;
    std::vector<std::shared_ptr<Gate>> gates;
    std::map<std::string, Handler> handlers;
    std::vector<HttpRequest> requests;
};

HttpServer::State::State(std::shared_ptr<SSL_CTX> context) : tls(std::move(context)) {
    ::signal(SIGPIPE, SIG_IGN);
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 64) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        fail("HttpServer");
    }
    port = ntohs(address.sin_port);
    acceptor = std::thread([this] { accept(); });
}

HttpServer::State::~State() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        for (const auto& gate : gates) gate->abandon();
        for (const auto& connection : connections) ::shutdown(connection.fd, SHUT_RDWR);
    }
    ::shutdown(listener, SHUT_RDWR);
    acceptor.join();
    for (auto& connection : connections) {
        connection.thread.join();
        ::close(connection.fd);
    }
    ::close(listener);
}

void HttpServer::State::accept() {
    for (unsigned number = 1;; ++number) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopping || fd < 0) {
            if (fd >= 0) ::close(fd);
            return;
        }
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Connection& connection = connections.emplace_back();
        connection.fd = fd;
        connection.number = number;
        connection.thread = std::thread([this, &connection] { serve(connection); });
    }
}

void HttpServer::State::serve(Connection& connection) {
    if (tls) {
        connection.tls = SSL_new(tls.get());
        SSL_set_fd(connection.tls, connection.fd);
    }
    if (connection.tls == nullptr || SSL_accept(connection.tls) == 1) {
        HttpRequest request;
        while (readRequest(connection, request)) {
            request.connection = connection.number;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                requests.push_back(request);
                requested.notify_all();
            }
            if (!send(connection, request, answerTo(request))) break;
            request = HttpRequest();
        }
    }
    if (connection.tls != nullptr) SSL_shutdown(connection.tls);  // the end of a body without a length is an honest one
    SSL_free(connection.tls);
    ERR_clear_error();
    ::shutdown(connection.fd,
               SHUT_RDWR);  // the descriptor itself stays until the end, so that its number is not reused
}

long HttpServer::State::read(const Connection& connection, char* buffer, std::size_t length) {
    if (connection.tls != nullptr) return SSL_read(connection.tls, buffer, static_cast<int>(length));
    return ::recv(connection.fd, buffer, length, 0);
}

bool HttpServer::State::write(const Connection& connection, const char* data, std::size_t length) {
    while (length > 0) {
        const long written = connection.tls != nullptr ? SSL_write(connection.tls, data, static_cast<int>(length))
                                                       : ::send(connection.fd, data, length, MSG_NOSIGNAL);
        if (written <= 0) return false;
        data += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

bool HttpServer::State::readRequest(Connection& connection, HttpRequest& request) const {
    std::array<char, 4096> buffer{};
    std::size_t end = 0;
    while ((end = connection.unread.find("\r\n\r\n")) == std::string::npos) {
        const long count = read(connection, buffer.data(), buffer.size());
        if (count <= 0) return false;
        connection.unread.append(buffer.data(), static_cast<std::size_t>(count));
    }
    const std::string head = connection.unread.substr(0, end + 2);
    connection.unread.erase(0, end + 4);

    std::size_t at = head.find("\r\n");
    const std::string line = head.substr(0, at);
    const auto first = line.find(' ');
    request.method = line.substr(0, first);
    request.target = line.substr(first + 1, line.rfind(' ') - first - 1);
    request.path = request.target.substr(0, request.target.find('?'));
    for (at += 2; at < head.size();) {
        const auto next = head.find("\r\n", at);
        const auto colon = head.find(": ", at);
        if (colon < next)
            request.headers.emplace_back(head.substr(at, colon - at), head.substr(colon + 2, next - colon - 2));
        at = next + 2;
    }
    return true;
}

HttpAnswer HttpServer::State::answerTo(const HttpRequest& request) {
    Handler handler;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto scripted = handlers.find(request.path);
        if (scripted == handlers.end()) return HttpAnswer::error(404);
        handler = scripted->second;
    }
    return handler(request);
}

bool HttpServer::State::stand(const std::shared_ptr<Gate>& gate) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopping) return false;
        gates.push_back(gate);
    }
    return gate->pass();
}

bool HttpServer::State::send(Connection& connection, const HttpRequest& request, const HttpAnswer& answer) {
    if (answer.gate && !answer.gateAfter && !stand(answer.gate)) return false;
    const bool bodiless = request.method == "HEAD" || answer.status == 204 || answer.status == 304;
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " + reasonOf(answer.status) + "\r\n";
    for (const auto& [name, value] : answer.headers) head += name + ": " + value + "\r\n";
    const bool closing = answer.withoutLength || answer.endless;
    if (closing) {
        head += "Connection: close\r\n";
    } else if (!bodiless || request.method == "HEAD") {
        head += "Content-Length: " + std::to_string(answer.declaredLength.value_or(answer.body.size())) + "\r\n";
    }
    head += "\r\n";
    if (!write(connection, head.data(), head.size())) return false;
    return (bodiless || sendBody(connection, answer)) && !closing;
}

bool HttpServer::State::sendBody(Connection& connection, const HttpAnswer& answer) {
    if (answer.endless) {
        while (write(connection, answer.body.data(), answer.body.size())) {
        }
        return false;
    }
    const std::size_t end = std::min(answer.cutAfter.value_or(answer.body.size()), answer.body.size());
    const std::size_t pause = answer.gateAfter ? std::min(*answer.gateAfter, end) : 0;
    if (!write(connection, answer.body.data(), pause)) return false;
    if (answer.gateAfter && !stand(answer.gate)) return false;
    return write(connection, answer.body.data() + pause, end - pause) && !answer.cutAfter;
}

HttpServer::HttpServer() : state_(std::make_unique<State>(nullptr)) {}

HttpServer::HttpServer(const TestAuthority& authority) : HttpServer(authority.issue("127.0.0.1")) {}

HttpServer::HttpServer(const TestCertificate& certificate) : state_(std::make_unique<State>(makeTls(certificate))) {}

HttpServer::~HttpServer() = default;

unsigned HttpServer::port() const { return state_->port; }

std::string HttpServer::url(const std::string& path) const {
    return (state_->tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(state_->port) + path;
}

void HttpServer::on(const std::string& path, HttpAnswer answer) {
    handle(path, [answer = std::move(answer)](const HttpRequest&) { return answer; });
}

void HttpServer::on(const std::string& path, std::vector<HttpAnswer> answers) {
    struct Sequence {
        std::mutex mutex;
        std::vector<HttpAnswer> answers;
        std::size_t next = 0;
    };
    auto sequence = std::make_shared<Sequence>();
    sequence->answers = std::move(answers);
    handle(path, [sequence](const HttpRequest&) {
        const std::lock_guard<std::mutex> lock(sequence->mutex);
        const std::size_t now = std::min(sequence->next++, sequence->answers.size() - 1);
        return sequence->answers.at(now);
    });
}

void HttpServer::handle(const std::string& path, Handler handler) {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->handlers[path] = std::move(handler);
}

std::vector<HttpRequest> HttpServer::requests() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->requests;
}

std::vector<HttpRequest> HttpServer::requestsFor(const std::string& path) const {
    std::vector<HttpRequest> matching;
    for (const HttpRequest& request : requests()) {
        if (request.path == path) matching.push_back(request);
    }
    return matching;
}

bool HttpServer::waitForRequests(const std::string& path, std::size_t count, std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->requested.wait_for(lock, patience, [&] {
        const auto matching = std::count_if(state_->requests.begin(), state_->requests.end(),
                                            [&](const HttpRequest& request) { return request.path == path; });
        return static_cast<std::size_t>(matching) >= count;
    });
}

}  // namespace fakes
