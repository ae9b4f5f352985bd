// AppStore (sync) and Storefront (the current one). Both go to the process's LocalStore.
// Blocking calls, meant to run inside tasks; any thread.
#pragma once

#include <optional>
#include <string>

#include "storekit/values.h"

namespace storekit {

struct Storefront {
  std::string countryCode;  // ISO 3166-1 alpha-3
  std::string id;           // the App Store's storefront identifier, "143441" for the USA
  std::string currency;     // ISO 4217

  // The storefront of the signed-in account; nothing when it cannot be determined.
  static std::optional<Storefront> current();

  friend bool operator==(const Storefront&, const Storefront&) = default;
};

struct AppStore {
  using Environment = storekit::Environment;

  // Brings the device's transactions up to date with the store. Throws StoreKitError
  // (userCancelled when the sign-in is dismissed).
  static void sync();
};

}  // namespace storekit
