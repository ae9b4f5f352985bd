#include "platform/openssl.h"

#include <openssl/crypto.h>

namespace platform {

bool initializeOpenSSL() {
  static const bool ready = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  return ready;
}

OpenSSLOwned<X509> certificateFromDER(std::string_view der) {
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  OpenSSLOwned<X509> cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())));
  if (cert && in != reinterpret_cast<const unsigned char*>(der.data() + der.size())) cert.reset();
  return cert;
}

}  // namespace platform
