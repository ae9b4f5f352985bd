// The library as a host loads it: dlopen, exported symbols, its own dispatcher and store.
#include "support/store_service.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
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
  EXPECT_THAT(versionString, testing::HasSubstr("VornTeskPaymentsAddonApple-1"));

  TeskBridgeDispatcher& dispatcher = sharedDispatcher();
  ASSERT_NE(&dispatcher, &TeskBridgeDispatcher::shared());
  EXPECT_EQ(dispatcher.plugin("AppleStoreKitService"), nullptr);
  registerService();
  EXPECT_THAT(callService(dispatcher, "GetProducts", R"({"productIds":[")" + kRemoveAds + R"("]})"),
              testing::StartsWith(R"({"success":{"products":[{"id":")" + kRemoveAds));
  EXPECT_EQ(TeskBridgeDispatcher::shared().plugin("AppleStoreKitService"), nullptr);
}

}  // namespace
