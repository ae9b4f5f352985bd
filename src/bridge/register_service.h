// How a host brings the service to life: one exported C function that registers a new
// plug-in around a new default adapter under "AppleStoreKitService", and the same function
// in the library's namespace for hosts that link against the C++ interface. There is no
// once-only guard: each call registers anew (an observer started through an earlier
// registration keeps running). Also the library's informational version symbols.
#pragma once

extern "C" {
__attribute__((visibility("default"))) void Vorn_Tesk_AppleStoreKitService_Register();
__attribute__((visibility("default"))) extern const double VornTeskPaymentsAddonAppleVersionNumber;
__attribute__((visibility("default"))) extern const unsigned char
    VornTeskPaymentsAddonAppleVersionString[];
}

namespace VornTeskPaymentsAddonApple {

void Vorn_Tesk_AppleStoreKitService_Register();

}  // namespace VornTeskPaymentsAddonApple
