#include "adapter/store_error_mapping.h"

#include "storekit/errors.h"

namespace VornTeskPaymentsAddonApple {

using vorn::tesk::VornError;
using vorn::tesk::VornErrorCode;

namespace {

VornError mapStoreKitError(const storekit::StoreKitError& error) {
  using Code = storekit::StoreKitError::Code;
  switch (error.code()) {
    case Code::userCancelled:
      return VornError{VornErrorCode::cancelled, "The user cancelled the operation."};
    case Code::networkError:
      return VornError{VornErrorCode::unavailable,
                       "A network error occurred: " +
                           (error.urlError() ? error.urlError()->localizedDescription() : ""),
                       "NETWORK_ERROR"};
    case Code::systemError:
      return VornError{VornErrorCode::internalError, "A StoreKit system error occurred.",
                       error.underlyingErrorDescription()};
    case Code::notAvailableInStorefront:
      return VornError{VornErrorCode::unavailable,
                       "The product is not available in the current storefront.",
                       "STOREFRONT_RESTRICTED"};
    case Code::notEntitled:
      return VornError{VornErrorCode::permissionDenied,
                       "The app is not entitled to perform this StoreKit operation."};
    default:
      // unknown, and every case this code does not know (including newer ones).
      return VornError{VornErrorCode::unknown, "An unrecognized StoreKit error occurred.",
                       "StoreKitError"};
  }
}

}  // namespace

VornError mapStoreKitError(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const storekit::StoreKitError& storeKitError) {
    return mapStoreKitError(storeKitError);
  } catch (...) {
    return VornError{VornErrorCode::internalError,
                     "StoreKit operation failed: " + storekit::localizedDescription(error)};
  }
}

bool isUserCancelledError(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const storekit::StoreKitError& storeKitError) {
    return storeKitError.code() == storekit::StoreKitError::Code::userCancelled;
  } catch (...) {
    return false;
  }
}

}  // namespace VornTeskPaymentsAddonApple
