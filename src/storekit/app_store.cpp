#include "storekit/app_store.h"

#include "storekit/local_store.h"

namespace storekit {

std::optional<Storefront> Storefront::current() { return LocalStore::shared()->currentStorefront(); }

void AppStore::sync() { LocalStore::shared()->sync(); }

}  // namespace storekit
