// The texts of OpenSSL's errors.
#pragma once

namespace zav {

/// Keeps the texts of libcrypto's errors out of memory: OpenSSL would load all of them, 50 kB, whatever it is used for
/// first. Those of libssl stay available. Call before any other use of OpenSSL; later it does nothing.
void omitErrorTexts();

}  // namespace zav
