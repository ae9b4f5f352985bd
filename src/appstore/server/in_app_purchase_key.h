// InAppPurchaseKey: the in-app-purchase key a developer's server signs its App Store Server
// API tokens with, as App Store Connect hands it out (a .p8 file: PKCS#8 PEM of a P-256 key),
// with its key id and the team's issuer id. The local App Store keeps it to check those
// tokens. A value; share freely, any thread.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>

namespace appstore::server {

struct InAppPurchaseKey {
  std::string keyID;
  std::string issuerID;
  std::shared_ptr<EVP_PKEY> key;

  // A new key, as App Store Connect would make one.
  static InAppPurchaseKey generate(std::string keyID, std::string issuerID);
  // The key in the .p8 file at `path`; when there is no such file, a new key written there
  // (PKCS#8 PEM), so that a developer's server can sign with it. Throws std::runtime_error
  // naming the file when it cannot be read or written, or holds no P-256 private key.
  static InAppPurchaseKey loadOrCreate(const std::string& path, std::string keyID,
                                       std::string issuerID);
};

}  // namespace appstore::server
