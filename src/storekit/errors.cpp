#include "storekit/errors.h"

#include <stdexcept>
#include <utility>

#include "appstore/store_failure.h"
#include "storekit/availability.h"

namespace storekit {
namespace {

using Family = appstore::StoreFailure::Family;

// Names compare without regard to case, blanks, hyphens and underscores, so that the
// spellings of configuration files ("Network Error") and code ("networkError") both match.
std::optional<int> indexOfName(Family family, std::string_view name) {
  const auto folded = appstore::foldName(name);
  const auto names = appstore::StoreFailure::caseNames(family);
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (appstore::foldName(names[i]) == folded) return static_cast<int>(i);
  }
  return std::nullopt;
}

std::string nameOf(Family family, int code) {
  const auto names = appstore::StoreFailure::caseNames(family);
  if (code >= 0 && static_cast<std::size_t>(code) < names.size()) return names[static_cast<std::size_t>(code)];
  return "unknownCase(" + std::to_string(code) + ")";
}

std::string defaultURLErrorDescription(int code) {
  switch (code) {
    case URLError::kTimedOut: return "The request timed out.";
    case URLError::kCannotConnectToHost: return "Could not connect to the server.";
    case URLError::kNetworkConnectionLost: return "The network connection was lost.";
    case URLError::kNotConnectedToInternet: return "The Internet connection appears to be offline.";
    default:
      return "The operation couldn\xE2\x80\x99t be completed. (NSURLErrorDomain error " +
             std::to_string(code) + ".)";
  }
}

}  // namespace

std::string localizedDescription(const std::exception_ptr& error) {
  if (!error) return "The operation couldn\xE2\x80\x99t be completed.";
  try {
    std::rethrow_exception(error);
  } catch (const Error& e) {
    return e.localizedDescription();
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "The operation couldn\xE2\x80\x99t be completed.";
  }
}

URLError::URLError(int code, std::optional<std::string> description)
    : code_(code), description_(description ? std::move(*description) : defaultURLErrorDescription(code)) {
  setWhat(description_);
}

StoreKitError::StoreKitError(Code code) : code_(code) { setWhat(localizedDescription()); }

StoreKitError StoreKitError::networkError(URLError error) {
  StoreKitError result(Code::networkError);
  result.urlError_ = std::move(error);
  result.setWhat(result.localizedDescription());
  return result;
}

StoreKitError StoreKitError::systemError(std::exception_ptr underlying) {
  std::string description = "unknown error";
  if (underlying) {
    try {
      std::rethrow_exception(underlying);
    } catch (const std::exception& e) {
      description = e.what();
    } catch (...) {
    }
  }
  return systemError(std::move(underlying), std::move(description));
}

StoreKitError StoreKitError::systemError(std::exception_ptr underlying, std::string description) {
  StoreKitError result(Code::systemError);
  result.underlying_ = std::move(underlying);
  result.underlyingDescription_ = std::move(description);
  result.setWhat(result.localizedDescription());
  return result;
}

StoreKitError StoreKitError::unsupported() {
  requireSystem(18, 4, "StoreKitError.unsupported");
  return StoreKitError(Code::unsupported);
}

std::string StoreKitError::localizedDescription() const {
  switch (code_) {
    case Code::unknown: return "An unknown error occurred.";
    case Code::userCancelled: return "The user cancelled the request.";
    case Code::networkError:
      return urlError_ ? urlError_->localizedDescription() : "A network error occurred.";
    case Code::systemError: return "A system error occurred: " + underlyingDescription_;
    case Code::notAvailableInStorefront:
      return "The product is not available in the current storefront.";
    case Code::notEntitled: return "The app is not entitled to perform this operation.";
    case Code::unsupported: return "This operation is not supported.";
  }
  return "The operation couldn\xE2\x80\x99t be completed. (StoreKit.StoreKitError error " +
         std::to_string(static_cast<int>(code_)) + ".)";
}

std::string StoreKitError::caseName() const {
  return nameOf(Family::storeKit, static_cast<int>(code_));
}

std::optional<StoreKitError> StoreKitError::named(std::string_view name) {
  const auto index = indexOfName(Family::storeKit, name);
  if (!index) return std::nullopt;
  const auto code = static_cast<Code>(*index);
  switch (code) {
    case Code::networkError: return networkError(URLError(URLError::kNotConnectedToInternet));
    case Code::systemError:
      return systemError(nullptr, "Error Domain=ASDErrorDomain Code=500 \"Unhandled exception\"");
    default: return StoreKitError(code);
  }
}

PurchaseError::PurchaseError(Code code) : code_(code) { setWhat(localizedDescription()); }

std::string PurchaseError::localizedDescription() const {
  switch (code_) {
    case Code::invalidQuantity: return "The quantity is not valid for this product.";
    case Code::productUnavailable: return "The product is not available.";
    case Code::purchaseNotAllowed: return "This device is not allowed to make purchases.";
    case Code::ineligibleForOffer: return "The customer is not eligible for this offer.";
    case Code::invalidOfferIdentifier: return "The offer identifier is not valid.";
    case Code::invalidOfferPrice: return "The offer price is not valid.";
    case Code::invalidOfferSignature: return "The offer signature is not valid.";
    case Code::missingOfferParameters: return "The offer is missing required parameters.";
  }
  return "The operation couldn\xE2\x80\x99t be completed. (StoreKit.Product.PurchaseError error " +
         std::to_string(static_cast<int>(code_)) + ".)";
}

std::string PurchaseError::caseName() const {
  return nameOf(Family::purchase, static_cast<int>(code_));
}

std::optional<PurchaseError> PurchaseError::named(std::string_view name) {
  const auto index = indexOfName(Family::purchase, name);
  if (!index) return std::nullopt;
  return PurchaseError(static_cast<Code>(*index));
}

VerificationError::VerificationError(Code code) : code_(code) { setWhat(localizedDescription()); }

std::string VerificationError::localizedDescription() const {
  switch (code_) {
    case Code::revokedCertificate: return "A certificate in the chain was revoked.";
    case Code::invalidCertificateChain: return "The certificate chain is not valid.";
    case Code::invalidDeviceVerification: return "The device verification is not valid.";
    case Code::invalidEncoding: return "The signed data is not encoded correctly.";
    case Code::invalidSignature: return "The signature is not valid.";
    case Code::missingRequiredProperties: return "The signed data lacks required properties.";
  }
  return "The operation couldn\xE2\x80\x99t be completed. (StoreKit.VerificationResult.VerificationError error " +
         std::to_string(static_cast<int>(code_)) + ".)";
}

std::string VerificationError::caseName() const {
  return nameOf(Family::verification, static_cast<int>(code_));
}

std::optional<VerificationError> VerificationError::named(std::string_view name) {
  const auto index = indexOfName(Family::verification, name);
  if (!index) return std::nullopt;
  return VerificationError(static_cast<Code>(*index));
}

void throwStoreFailure(const appstore::StoreFailure& failure) {
  // "unknownCase(N)": the code of a case this system does not name.
  std::optional<int> code = indexOfName(failure.family, failure.caseName);
  if (!code && failure.caseName.starts_with("unknownCase(") && failure.caseName.ends_with(")")) {
    try {
      code = std::stoi(failure.caseName.substr(12));
    } catch (const std::exception&) {
    }
  }
  if (!code) throw StoreKitError::unknown();
  switch (failure.family) {
    case Family::storeKit: {
      const auto storeKitCode = static_cast<StoreKitError::Code>(*code);
      if (storeKitCode == StoreKitError::Code::systemError && !failure.underlyingDescription.empty()) {
        throw StoreKitError::systemError(
            std::make_exception_ptr(std::runtime_error(failure.underlyingDescription)));
      }
      if (auto error = StoreKitError::named(failure.caseName)) throw *error;
      throw StoreKitError::withCode(storeKitCode);
    }
    case Family::purchase: throw PurchaseError(static_cast<PurchaseError::Code>(*code));
    case Family::verification: throw VerificationError(static_cast<VerificationError::Code>(*code));
  }
  throw StoreKitError::unknown();
}

}  // namespace storekit
