// The library as a host loads it: dlopen, the exported registration function and version
// symbols found by name, and the plug-in it registered driven through the library's own
// dispatcher and store (apart from the copies this test program links).
#include "support/store_service.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using namespace testsupport;
using vorn::tesk::TeskBridgeDispatcher;

TEST(SharedLibrary, TheExportedFunctionRegistersAServiceThatAnswersThroughTheLibrarysDispatcher) {
  // The library's store reads its configuration on first use, as a host would set it up.
  ASSERT_EQ(setenv("VORNTESK_STOREKIT_CONFIG", kSampleStore.c_str(), 1), 0);
  void* library = dlopen(VORNTESK_BINARY_DIR "/libVornTeskPaymentsAddonApple.so.1", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();  // never closed: the library's threads keep running
  const auto* versionNumber =
      static_cast<const double*>(dlsym(library, "VornTeskPaymentsAddonAppleVersionNumber"));
  const auto* versionString =
      static_cast<const char*>(dlsym(library, "VornTeskPaymentsAddonAppleVersionString"));
  const auto registerService =
      reinterpret_cast<void (*)()>(dlsym(library, "Vorn_Tesk_AppleStoreKitService_Register"));
  // vorn::tesk::TeskBridgeDispatcher::shared(), the host side the library itself calls.
  const auto sharedDispatcher = reinterpret_cast<TeskBridgeDispatcher& (*)()>(
      dlsym(library, "_ZN4vorn4tesk20TeskBridgeDispatcher6sharedEv"));
  ASSERT_TRUE(versionNumber && versionString && registerService && sharedDispatcher);
  EXPECT_EQ(*versionNumber, 1.0);
  EXPECT_NE(std::string(versionString).find("VornTeskPaymentsAddonApple-1"), std::string::npos);

  TeskBridgeDispatcher& dispatcher = sharedDispatcher();
  ASSERT_NE(&dispatcher, &TeskBridgeDispatcher::shared());
  EXPECT_EQ(dispatcher.plugin("AppleStoreKitService"), nullptr);
  registerService();
  const auto first = dispatcher.plugin("AppleStoreKitService");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(callService(dispatcher, "GetProducts", R"({"productIds":[")" + kRemoveAds + R"("]})"),
            R"({"success":{"products":[{"id":"com.vorntesk.sample.removeads",)"
            R"("displayName":"Remove Ads","description":"Removes every advertisement, for good.",)"
            R"("displayPrice":"$4.99","price":"4.99","priceLocale":"en_US","productType":2,)"
            R"("isFamilyShareable":true}]}})");
  EXPECT_EQ(callService(dispatcher, "StartTransactionObserver"), R"({"success":{}})");
  EXPECT_EQ(callService(dispatcher, "StartTransactionObserver"),
            R"({"outcome":{"code":"already_started","data":{}}})");
  // Each call registers anew, with an observer of its own that has not started yet.
  registerService();
  EXPECT_NE(dispatcher.plugin("AppleStoreKitService"), first);
  EXPECT_EQ(callService(dispatcher, "StartTransactionObserver"), R"({"success":{}})");
  EXPECT_EQ(callService(dispatcher, "StopTransactionObserver"), R"({"success":{}})");
  EXPECT_EQ(TeskBridgeDispatcher::shared().plugin("AppleStoreKitService"), nullptr);
}

}  // namespace
