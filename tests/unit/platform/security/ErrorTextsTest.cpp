#include "security/ErrorTexts.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/sslerr.h>
#include <openssl/x509err.h>

#include <cstdlib>

namespace {

bool hasText(int library, int reason) { return ERR_reason_error_string(ERR_PACK(library, 0, reason)) != nullptr; }

// In a process of its own: it must come before any other use of OpenSSL.
TEST(ErrorTexts, OnlyThoseOfTlsAreLoaded) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto check = [] {
        zav::omitErrorTexts();
        SSL_CTX_free(SSL_CTX_new(TLS_client_method()));  // as a first connection does
        ERR_clear_error();
        const bool tls = hasText(ERR_LIB_SSL, SSL_R_EE_KEY_TOO_SMALL);
        const bool other = hasText(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH);
        std::_Exit(tls && !other ? EXIT_SUCCESS : EXIT_FAILURE);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
