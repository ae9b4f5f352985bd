#include "storekit/app_store.h"

#include "storekit/device.h"

namespace storekit {

std::optional<Storefront> Storefront::current() {
  const auto storefront = Device::current()->store()->currentStorefront();
  if (!storefront) return std::nullopt;
  return Storefront{storefront->countryCode, storefront->id, storefront->currency};
}

void AppStore::sync() {
  const auto device = Device::current();
  askStore([&] { device->store()->sync(); });
}

}  // namespace storekit
