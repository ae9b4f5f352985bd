// Xcode .storekit files of any content. Reading one either gives a configuration or throws
// ConfigurationError, nothing else; a configuration that reads is then served by the store:
// its products are listed (prices formatted for its locale and storefront) and each of the
// first few is bought once (offers, periods and prices made into signed transactions), where
// only the store's own errors may be thrown.
//
// Input: the file's text.
#include "fuzz_check.h"
#include "storekit/local_store.h"

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
  static const auto store = storekit::LocalStore::create();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  storekit::StoreConfiguration configuration;
  try {
    configuration = storekit::StoreConfiguration::parse(text, "fuzz.storekit");
  } catch (const storekit::ConfigurationError&) {
    return 0;
  }
  std::vector<std::string> ids;
  for (const auto& product : configuration.products) ids.push_back(product.productID);
  try {
    store->loadConfiguration(std::move(configuration));
  } catch (const storekit::ConfigurationError&) {
    return 0;
  }
  try {
    const auto products = store->products(ids);
    FUZZ_REQUIRE(products.size() == ids.size(), "a configured product is not served");
  } catch (...) {
    FUZZ_REQUIRE(isStoreError(std::current_exception()), describe(std::current_exception()));
  }
  for (std::size_t i = 0; i < ids.size() && i < kPurchasesPerInput; ++i) {
    try {
      (void)store->purchase(ids[i], {});
    } catch (...) {
      FUZZ_REQUIRE(isStoreError(std::current_exception()), describe(std::current_exception()));
    }
  }
  store->clearTransactions();
  return 0;
}
