#include "CloseNotify.h"

#include <new>

namespace zav {

namespace {

// The index of our pointer in each context.
int pointerIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
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

}  // namespace zav
