#include "bridge/register_service.h"

#include "adapter/apple_store_kit_service_native_adapter_default.h"
#include "bridge/apple_store_kit_service_plugin.h"

extern "C" {

const double VornTeskPaymentsAddonAppleVersionNumber = 1.0;
const unsigned char VornTeskPaymentsAddonAppleVersionString[] =
    "@(#)PROGRAM:VornTeskPaymentsAddonApple  PROJECT:VornTeskPaymentsAddonApple-1\n";

void Vorn_Tesk_AppleStoreKitService_Register() {
  VornTeskPaymentsAddonApple::AppleStoreKitServicePlugin::registerPlugin(
      std::make_shared<VornTeskPaymentsAddonApple::AppleStoreKitServiceNativeAdapterDefault>());
}

}  // extern "C"

namespace VornTeskPaymentsAddonApple {

void Vorn_Tesk_AppleStoreKitService_Register() {
  AppleStoreKitServicePlugin::registerPlugin(
      std::make_shared<AppleStoreKitServiceNativeAdapterDefault>());
}

}  // namespace VornTeskPaymentsAddonApple
