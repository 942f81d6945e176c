#include "security/ErrorTexts.h"

#include <openssl/crypto.h>

namespace zav {

void omitErrorTexts() { OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS, nullptr); }

}  // namespace zav
