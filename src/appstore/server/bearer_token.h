// The App Store Server API's authentication: a JWT bearer token signed with the developer's
// in-app-purchase key (ES256), for the App Store Connect audience, the key's id and issuer,
// and the app's bundle id, valid for at most an hour. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "appstore/server/in_app_purchase_key.h"

namespace appstore::server {

enum class TokenCheck {
  accepted,
  unauthorized,  // missing, malformed, wrongly signed, expired, too long-lived, wrong kid/iss/aud
  unknownApp,    // a good token for another bundle id
};

// The Authorization header's value a client of the API sends: "Bearer " and a token signed
// with `key` at `nowSeconds` (UNIX seconds), valid for five minutes, as Apple's libraries make
// it. For test clients and embedding hosts' tests.
std::string makeBearerToken(const InAppPurchaseKey& key, std::string_view bundleID,
                            std::int64_t nowSeconds);

// Checks the Authorization header's value at `nowSeconds` (UNIX seconds).
TokenCheck checkBearerToken(std::string_view authorization, const InAppPurchaseKey& key,
                            std::string_view bundleID, std::int64_t nowSeconds);

}  // namespace appstore::server
