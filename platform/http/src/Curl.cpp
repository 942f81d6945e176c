#include "http/Curl.h"

#include <poll.h>

#include <new>
#include <stdexcept>
#include <utility>

#include "CurlState.h"
#include "common/Descriptor.h"
#include "debug/Debug.h"

namespace zav {

namespace {

// The index of our pointer in each context.
int pointerIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

// Between a response and the next request, a socket is readable only if the server closed it or sent too much.
bool isReadable(curl_socket_t socket) {
    pollfd watched{socket, POLLIN, 0};
    return socket != CURL_SOCKET_BAD && ::poll(&watched, 1, 0) != 0;
}

}  // namespace

void CloseNotify::watch(SSL_CTX* context) {
    // Without this option newer versions of libcurl report a cut themselves; 7.88 does not.
    SSL_CTX_clear_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (pointerIndex() < 0 || SSL_CTX_set_ex_data(context, pointerIndex(), this) != 1) throw std::bad_alloc();
    SSL_CTX_set_info_callback(context, &CloseNotify::onEvent);
}

void CloseNotify::onEvent(const SSL* connection, int where, int value) {
    constexpr int descriptionMask = 0xff;
    auto* const self = static_cast<CloseNotify*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), pointerIndex()));
    // A new connection may have the address of the closed one.
    if (where == SSL_CB_HANDSHAKE_START && self->closed_ == connection) self->closed_ = nullptr;
    if (where == SSL_CB_READ_ALERT && (value & descriptionMask) == SSL_AD_CLOSE_NOTIFY) self->closed_ = connection;
}

Curl::State::State(CurlSettings clientSettings)
    : settings(std::move(clientSettings)), stop(std::make_shared<common::StopSignal>()) {
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) throw std::runtime_error("Cannot initialise libcurl");
}

Curl::State::~State() {
    curl_easy_cleanup(handle);
    curl_global_cleanup();
}

CURL* Curl::State::handleFor(std::shared_ptr<const TrustedCertificates> certificates,
                             std::shared_ptr<const DeviceIdentity> ownIdentity) {
    if (certificates != trusted || ownIdentity != identity || isReadable(keptSocket)) dropHandle();
    trusted = std::move(certificates);
    identity = std::move(ownIdentity);
    if (handle == nullptr) handle = curl_easy_init();
    return handle;
}

void Curl::State::keepHandle(const SSL* tls) {
    curl_easy_getinfo(handle, CURLINFO_ACTIVESOCKET, &keptSocket);
    if (keptSocket == CURL_SOCKET_BAD || (tls != nullptr && SSL_has_pending(tls) != 0)) return dropHandle();
    curl_easy_reset(handle);
}

void Curl::State::dropHandle() {
    curl_easy_cleanup(handle);
    handle = nullptr;
    keptSocket = CURL_SOCKET_BAD;
    // If memory runs out while libcurl 7.88 sets up a name lookup, it closes descriptor 0. The next file or socket of
    // the process would get that number, and the next such failure would close it.
    common::occupyStandardDescriptors();
}

std::shared_ptr<common::StopSignal> Curl::State::stopSignal() const {
    const common::LockGuard lock(stopMutex);
    return stop;
}

void Curl::State::report(long total, long now) {
    const common::LockGuard lock(callbackMutex);
    const auto current = callback;  // keeps it alive if it removes itself
    if (current == nullptr) return;
    try {
        (*current)(total, now, 0, 0);
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "Progress callback: " << exception.what() << std::endl;
    } catch (...) {
        dbg::Debug::warning() << "Progress callback: unknown exception" << std::endl;
    }
}

Curl::Curl(CurlSettings settings) : state_(std::make_unique<State>(std::move(settings))) {}

Curl::~Curl() = default;

const CurlSettings& Curl::settings() const { return state_->settings; }

long Curl::getHttpCode() const { return state_->httpCode; }

void Curl::setProgressCallback(ProgressCallback callback) {
    auto next = callback ? std::make_shared<ProgressCallback>(std::move(callback)) : nullptr;
    const common::LockGuard lock(state_->callbackMutex);
    state_->callback.swap(next);  // the old one is destroyed after the lock is released
}

void Curl::stopWith(std::shared_ptr<common::StopSignal> signal) {
    if (signal == nullptr) signal = std::make_shared<common::StopSignal>();
    const common::LockGuard lock(state_->stopMutex);
    state_->stop.swap(signal);
}

}  // namespace zav
