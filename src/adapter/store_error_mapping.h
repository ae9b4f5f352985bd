// The one place where the store's errors meet the host's error codes. Total: every thrown
// value gives exactly one VornError. Pure; any thread.
#pragma once

#include "host/vorn_error.h"

#include <exception>

namespace VornTeskPaymentsAddonApple {

vorn::tesk::VornError mapStoreKitError(const std::exception_ptr& error);

// True only for the store's own user-cancelled error (StoreKitError.userCancelled).
bool isUserCancelledError(const std::exception_ptr& error);

}  // namespace VornTeskPaymentsAddonApple
