#include "appstore/server/in_app_purchase_key.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <openssl/ec.h>

#include "platform/openssl.h"

namespace appstore::server {
namespace {

std::shared_ptr<EVP_PKEY> shared(EVP_PKEY* key) {
  return std::shared_ptr<EVP_PKEY>(key, [](EVP_PKEY* k) { EVP_PKEY_free(k); });
}

bool isP256(EVP_PKEY* key) {
  char curve[64] = {};
  std::size_t length = 0;
  return EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
         EVP_PKEY_get_utf8_string_param(key, "group", curve, sizeof curve, &length) == 1 &&
         std::string(curve, length) == "prime256v1";
}

}  // namespace

InAppPurchaseKey InAppPurchaseKey::generate(std::string keyID, std::string issuerID) {
  platform::initializeOpenSSL();
  EVP_PKEY* key = EVP_EC_gen("P-256");
  if (!key) throw std::runtime_error("cannot generate an in-app-purchase key");
  return {std::move(keyID), std::move(issuerID), shared(key)};
}

InAppPurchaseKey InAppPurchaseKey::loadOrCreate(const std::string& path, std::string keyID,
                                                std::string issuerID) {
  platform::initializeOpenSSL();
  if (!std::filesystem::exists(path)) {
    auto made = generate(std::move(keyID), std::move(issuerID));
    const auto pem = platform::privateKeyPEM(made.key.get());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << pem;
    if (pem.empty() || !out.flush()) throw std::runtime_error("cannot write the key file " + path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return made;
  }
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in) throw std::runtime_error("cannot read the key file " + path);
  auto key = platform::privateKeyFromPEM(text.str());
  if (!key || !isP256(key.get())) {
    throw std::runtime_error("the key file " + path + " holds no P-256 private key (PKCS#8 PEM)");
  }
  return {std::move(keyID), std::move(issuerID), shared(key.release())};
}

}  // namespace appstore::server
