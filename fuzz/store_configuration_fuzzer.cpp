// Xcode .storekit files of any content. Reading one either gives a configuration or throws
// ConfigurationError, nothing else; a configuration that reads is then served by the store:
// its products are listed (prices formatted for its locale and storefront) and each of the
// first few is bought once (offers, periods and prices made into signed transactions), where
// only the store's own errors may be thrown.
//
// Input: the file's text.
#include "fuzz_check.h"
#include "appstore/local_store.h"
#include "storekit/product.h"

#include <exception>

namespace {

constexpr std::size_t kPurchasesPerInput = 4;

// The store's documented failures: what a configuration may ask it to simulate, and refusals.
bool isStoreError(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const storekit::StoreKitError&) {
    return true;
  } catch (const storekit::PurchaseError&) {
    return true;
  } catch (...) {
    return false;
  }
}

std::string describe(const std::exception_ptr& error) {
  return storekit::localizedDescription(error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The products as a device describes them and buys them, from the process's store.
  static const auto store = [] {
    auto made = appstore::LocalStore::create();
    appstore::LocalStore::setShared(made);
    return made;
  }();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  appstore::StoreConfiguration configuration;
  try {
    configuration = appstore::StoreConfiguration::parse(text, "fuzz.storekit");
  } catch (const appstore::ConfigurationError&) {
    return 0;
  }
  std::vector<std::string> ids;
  for (const auto& product : configuration.products) ids.push_back(product.productID);
  try {
    store->loadConfiguration(std::move(configuration));
  } catch (const appstore::ConfigurationError&) {
    return 0;
  }
  std::vector<storekit::Product> products;
  try {
    products = storekit::Product::products(ids);
    FUZZ_REQUIRE(products.size() == ids.size(), "a configured product is not served");
  } catch (...) {
    FUZZ_REQUIRE(isStoreError(std::current_exception()), describe(std::current_exception()));
  }
  for (std::size_t i = 0; i < products.size() && i < kPurchasesPerInput; ++i) {
    try {
      (void)products[i].purchase();
    } catch (...) {
      FUZZ_REQUIRE(isStoreError(std::current_exception()), describe(std::current_exception()));
    }
  }
  store->clearTransactions();
  return 0;
}
