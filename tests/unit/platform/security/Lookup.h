// Looks for a certificate in a store as a TLS connection does.
#pragma once

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>

namespace lookup {

/// Whether there is a certificate of this common name.
inline bool finds(X509_STORE* store, const std::string& commonName) {
    const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> name(X509_NAME_new(), X509_NAME_free);
    X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    const std::unique_ptr<X509_STORE_CTX, void (*)(X509_STORE_CTX*)> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
    X509_STORE_CTX_init(context.get(), store, nullptr, nullptr);
    const std::unique_ptr<X509_OBJECT, void (*)(X509_OBJECT*)> found(
        X509_STORE_CTX_get_obj_by_subject(context.get(), X509_LU_X509, name.get()), X509_OBJECT_free);
    return found != nullptr &&
           X509_NAME_cmp(X509_get_subject_name(X509_OBJECT_get0_X509(found.get())), name.get()) == 0;
}

}  // namespace lookup
