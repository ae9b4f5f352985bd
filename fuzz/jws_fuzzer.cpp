// Signed transactions that are arbitrary, mutated or spliced. Nothing counts as verified
// unless its signature holds: a token that verifies carries exactly the payload bytes the
// trusted authority signed, whether checked alone (verifyJWS) or as the device does
// (storekit::Device::verify). Tokens signed by a second, untrusted chain, and mixtures
// of the two, never verify.
//
// Input: a first byte choosing the form, then either the token itself (form 0) or edits
// applied to a freshly signed token, each edit three bytes: position (two) and a byte value
// whose low bits choose replace, insert or delete.
#include "fuzz_check.h"
#include "appstore/local_store.h"
#include "storekit/device.h"
#include "storekit/jws.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>
#include <array>

namespace {

struct Tokens {
  std::shared_ptr<appstore::LocalStore> store;
  std::shared_ptr<storekit::Device> device;
  std::shared_ptr<const appstore::SigningAuthority> untrusted =
      appstore::SigningAuthority::generate();
  std::vector<std::string> trustedPayloads;
  std::vector<std::string> signedTokens;  // trusted ones first, then the untrusted one

  Tokens() {
    // One purchase as the device sees it (with its device verification), from a one-product
    // store.
    appstore::StoreConfiguration configuration;
    appstore::ConfiguredProduct coins;
    coins.productID = "com.fuzz.coins";
    coins.referenceName = "Coins";
    coins.price = *platform::Decimal::parse("0.99");
    configuration.products.push_back(coins);
    store = appstore::LocalStore::create(configuration);
    device = std::make_shared<storekit::Device>(store);
    appstore::PurchaseRequest request;
    request.productID = coins.productID;
    (void)store->purchase(request);
    for (const auto& entry : store->allTransactions()) {
      signedTokens.push_back(entry.jwsRepresentation);
      trustedPayloads.push_back(*storekit::decodeJWSPayload(entry.jwsRepresentation));
    }
    // Short and long payloads straight from the authority, and one the untrusted chain signs.
    for (const char* text : {"{}", R"({"signedDate":1700000000000,"price":990})"}) {
      signedTokens.push_back(store->signingAuthority().sign(text));
      trustedPayloads.push_back(text);
    }
    signedTokens.push_back(untrusted->sign(trustedPayloads.front()));
  }

  bool isTrusted(const std::string& payload) const {
    return std::find(trustedPayloads.begin(), trustedPayloads.end(), payload) !=
           trustedPayloads.end();
  }
};

std::array<std::string_view, 3> segments(std::string_view token) {
  const auto first = token.find('.');
  const auto second = token.find('.', first + 1);
  return {token.substr(0, first), token.substr(first + 1, second - first - 1),
          token.substr(second + 1)};
}

std::string buildToken(const Tokens& tokens, const std::uint8_t* data, std::size_t size) {
  if (size == 0) return std::string();
  const std::uint8_t form = data[0];
  if (form % 4 == 0) return std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string token;
  const auto& all = tokens.signedTokens;
  if (form % 4 == 3) {
    // Header, payload and signature each from any of the signed tokens.
    const auto pick = [&](int shift) { return segments(all[(form >> shift) % all.size()]); };
    token = std::string(pick(2)[0]) + "." + std::string(pick(4)[1]) + "." + std::string(pick(6)[2]);
  } else {
    token = all[(form >> 2) % all.size()];
  }
  for (std::size_t i = 1; i + 3 <= size; i += 3) {
    const std::size_t position = (std::size_t{data[i]} << 8 | data[i + 1]) % (token.size() + 1);
    const char value = static_cast<char>(data[i + 2]);
    switch (data[i + 2] % 3) {
      case 0:
        if (position < token.size()) token[position] = value;
        break;
      case 1:
        token.insert(position, 1, value);
        break;
      default:
        if (position < token.size()) token.erase(position, 1);
    }
  }
  return token;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto* tokens = new Tokens();
  const std::string token = buildToken(*tokens, data, size);
  const auto& root = tokens->store->rootCertificate();

  try {
    const std::string payload = storekit::verifyJWS(token, root);
    FUZZ_REQUIRE(tokens->isTrusted(payload), "verified a payload nobody signed: " + token);
  } catch (const storekit::VerificationError&) {
  }

  try {
    const auto result = tokens->device->verify({0, token});
    if (result.isVerified()) {
      const auto payload = storekit::decodeJWSPayload(token);
      FUZZ_REQUIRE(payload && tokens->isTrusted(*payload),
                   "the store verified a payload nobody signed: " + token);
      FUZZ_REQUIRE(boost::json::serialize(result.unsafePayloadValue().payload()) ==
                       boost::json::serialize(boost::json::parse(*payload)),
                   "the verified transaction is not the signed one: " + token);
    }
  } catch (const storekit::VerificationError& error) {
    // Only when no transaction can be read from the token at all.
    FUZZ_REQUIRE(error.code() == storekit::VerificationError::Code::invalidEncoding, token);
  }
  return 0;
}
