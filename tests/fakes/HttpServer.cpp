#include "fakes/HttpServer.h"

#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace fakes {

namespace {

const char* const loopback = "127.0.0.1";

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

std::shared_ptr<SSL_CTX> makeTls(const TestCertificate& shown, Flaw flaw) {
    std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (flaw == Flaw::oldTls) {
        SSL_CTX_set_security_level(tls.get(), 0);
        SSL_CTX_set_min_proto_version(tls.get(), TLS1_VERSION);
        SSL_CTX_set_max_proto_version(tls.get(), TLS1_1_VERSION);
    }
    if (flaw == Flaw::tls12) SSL_CTX_set_max_proto_version(tls.get(), TLS1_2_VERSION);
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

void askForCertificates(SSL_CTX* tls, const TestAuthority& clients) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new_mem_buf(clients.certificate().data(), -1), &BIO_free);
    const std::unique_ptr<X509, decltype(&X509_free)> authority(
        PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr), &X509_free);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(tls), authority.get());
    SSL_CTX_set_verify(tls, SSL_VERIFY_PEER, nullptr);
    // Without it, a server that asks for certificates fails the handshake of a resumed session.
    const std::array<unsigned char, 4> context{'t', 'e', 's', 't'};
    SSL_CTX_set_session_id_context(tls, context.data(), context.size());
}

std::string clientOf(SSL* tls) {
    const X509* const certificate = tls == nullptr ? nullptr : SSL_get0_peer_certificate(tls);
    std::array<char, 256> name{};
    if (certificate == nullptr) return "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name.data(), name.size());
    return name.data();
}

std::string reasonOf(int status) { return status == 200 ? "OK" : "Scripted"; }

}  // namespace

struct HttpServer::State {
    struct Connection {
        int fd = -1;
        SSL* tls = nullptr;  // used by the serving thread only
        unsigned number = 0;
        std::string unread;
        std::thread thread;
    };

    State(std::shared_ptr<SSL_CTX> context, const std::string& address, unsigned wantedPort, Flaw wrong);
    ~State();
    void accept();
    void serve(Connection& connection);
    bool greet(Connection& connection) const;
    Ending answerRequests(Connection& connection);
    static void close(Connection& connection, Ending how);
    bool readRequest(Connection& connection, HttpRequest& request) const;
    HttpAnswer answerTo(const HttpRequest& request);
    bool send(Connection& connection, const HttpRequest& request, const HttpAnswer& answer);
    bool sendBody(Connection& connection, const HttpAnswer& answer);
    bool act(const Connection& connection, const Afterwards& afterwards);
    bool stand(const std::shared_ptr<Gate>& gate);
    static bool write(const Connection& connection, const char* data, std::size_t length);
    static long read(const Connection& connection, char* buffer, std::size_t length);

    const std::shared_ptr<SSL_CTX> tls;
    const std::string address;
    const Flaw flaw;
    int listener = -1;
    unsigned port = 0;
    std::thread acceptor;

    mutable std::mutex mutex;
    mutable std::condition_variable requested;  // or connected
    // Guarded by mutex.
    bool stopping = false;
    std::list<Connection> connections;
    std::vector<std::shared_ptr<Gate>> gates;
    std::map<std::string, Handler> handlers;
    std::vector<HttpRequest> requests;
};

HttpServer::State::State(std::shared_ptr<SSL_CTX> context, const std::string& where, unsigned wantedPort, Flaw wrong)
    : tls(std::move(context)), address(where), flaw(wrong) {
    ::signal(SIGPIPE, SIG_IGN);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(address.c_str(), std::to_string(wantedPort).c_str(), &hints, &found) != 0) fail("HttpServer");
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    listener = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || ::bind(listener, found->ai_addr, found->ai_addrlen) != 0 || ::listen(listener, 64) != 0 ||
        ::getsockname(listener, found->ai_addr, &found->ai_addrlen) != 0) {
        fail("HttpServer");
    }
    // The port has the same offset for IPv4 and IPv6.
    port = ntohs(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_port);
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
        requested.notify_all();
    }
}

void HttpServer::State::serve(Connection& connection) {
    const Ending ending = greet(connection) ? answerRequests(connection) : Ending::withoutCloseNotify;
    close(connection, ending);
}

// Whether the connection is ready for requests.
bool HttpServer::State::greet(Connection& connection) const {
    char byte = 0;
    if (flaw == Flaw::silent) {
        while (::recv(connection.fd, &byte, 1, 0) > 0) {
        }
        return false;
    }
    if (!tls) return true;
    connection.tls = SSL_new(tls.get());
    SSL_set_fd(connection.tls, connection.fd);
    if (flaw != Flaw::cutsHandshake) return SSL_accept(connection.tls) == 1;
    ::recv(connection.fd, &byte, 1, 0);
    return false;
}

Ending HttpServer::State::answerRequests(Connection& connection) {
    HttpRequest request;
    while (readRequest(connection, request)) {
        request.connection = connection.number;
        request.client = clientOf(connection.tls);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            requests.push_back(request);
            requested.notify_all();
        }
        const HttpAnswer answer = answerTo(request);
        if (!send(connection, request, answer)) return answer.ending.value_or(Ending::orderly);
        request = HttpRequest();
    }
    return Ending::orderly;
}

void HttpServer::State::close(Connection& connection, Ending how) {
    const bool closed = connection.tls != nullptr && (SSL_get_shutdown(connection.tls) & SSL_SENT_SHUTDOWN) != 0;
    if (connection.tls != nullptr && !closed && how == Ending::orderly) SSL_shutdown(connection.tls);
    SSL_free(connection.tls);
    ERR_clear_error();
    if (how == Ending::reset) {
        // Connecting to AF_UNSPEC drops the connection at once and keeps the descriptor.
        const sockaddr nobody{};
        static_cast<void>(::connect(connection.fd, &nobody, sizeof nobody));
    }
    // The descriptor stays open until the end, so that its number is not reused.
    ::shutdown(connection.fd, SHUT_RDWR);
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
        if (connection.unread.front() < 'A' || connection.unread.front() > 'Z') {  // not HTTP, for example TLS
            const std::string refusal = "HTTP/1.1 400 Bad Request\r\n\r\n";
            write(connection, refusal.data(), refusal.size());
            return false;
        }
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
    } else if (answer.chunked) {
        head += "Transfer-Encoding: chunked\r\n";
    } else if (!bodiless || request.method == "HEAD") {
        head += "Content-Length: " + std::to_string(answer.declaredLength.value_or(answer.body.size())) + "\r\n";
    }
    head += "\r\n";
    if (answer.raw) head = *answer.raw;
    if (!write(connection, head.data(), head.size())) return false;
    if (!bodiless && !sendBody(connection, answer)) return false;
    if (answer.afterwards && !act(connection, *answer.afterwards)) return false;
    return !closing && !answer.ending;
}

// Returns whether the connection can serve further requests.
bool HttpServer::State::act(const Connection& connection, const Afterwards& afterwards) {
    if (!stand(afterwards.begin)) return false;
    const bool written = write(connection, afterwards.sends.data(), afterwards.sends.size());
    if (afterwards.closes) SSL_shutdown(connection.tls);
    const auto isUnderWay = [&] {
        pollfd watched{connection.fd, 0, 0};
        int bytes = 0;
        return ::poll(&watched, 1, 0) == 0 && ::ioctl(connection.fd, SIOCOUTQ, &bytes) == 0 && bytes > 0;
    };
    while (isUnderWay()) std::this_thread::yield();
    return stand(afterwards.delivered) && written && !afterwards.closes;
}

bool HttpServer::State::sendBody(Connection& connection, const HttpAnswer& answer) {
    const std::string& endlessly = answer.endless ? answer.body : answer.repeated;
    std::string body = answer.body;
    if (answer.chunked) {
        std::ostringstream size;
        size << std::hex << body.size();
        body = size.str() + "\r\n" + body + "\r\n0\r\n\r\n";
    }
    const std::size_t end = std::min(answer.cutAfter.value_or(body.size()), body.size());
    const std::size_t pause = answer.gateAfter ? std::min(*answer.gateAfter, end) : 0;
    if (!write(connection, body.data(), pause)) return false;
    if (answer.gateAfter && !stand(answer.gate)) return false;
    if (!write(connection, body.data() + pause, end - pause) || answer.cutAfter) return false;
    while (!endlessly.empty() && write(connection, endlessly.data(), endlessly.size())) {
    }
    return endlessly.empty();
}

HttpServer::HttpServer() : HttpServer(loopback, 0) {}

HttpServer::HttpServer(const TestAuthority& authority) : HttpServer(authority.issue("127.0.0.1")) {}

HttpServer::HttpServer(const TestCertificate& certificate, Flaw flaw)
    : state_(std::make_unique<State>(makeTls(certificate, flaw), loopback, 0, flaw)) {}

HttpServer::HttpServer(const TestAuthority& authority, const TestAuthority& clients) : HttpServer(authority) {
    askForCertificates(state_->tls.get(), clients);
}

HttpServer::HttpServer(const std::string& address, unsigned port, Flaw flaw)
    : state_(std::make_unique<State>(nullptr, address, port, flaw)) {}

HttpServer::~HttpServer() = default;

unsigned HttpServer::port() const { return state_->port; }

std::string HttpServer::url(const std::string& path) const {
    const std::string& address = state_->address;
    const std::string host = address.find(':') == std::string::npos ? address : "[" + address + "]";
    return (state_->tls ? "https://" : "http://") + host + ":" + std::to_string(state_->port) + path;
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

bool HttpServer::waitForConnections(std::size_t count, std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->requested.wait_for(lock, patience, [&] { return state_->connections.size() >= count; });
}

}  // namespace fakes
