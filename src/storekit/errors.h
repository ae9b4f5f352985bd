// The errors StoreKit throws: StoreKitError (with the URLError it carries for network
// failures), Product::PurchaseError and VerificationResult's VerificationError. Each is an
// exception class that is also a plain value; every one has a localized description.
// Cases are integer codes so that a value outside the cases known here (one a newer system
// adds) can exist and be told apart. Immutable after construction; share freely.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "appstore/store_failure.h"

namespace storekit {

// Common base of the thrown StoreKit errors.
class Error : public std::exception {
 public:
  virtual std::string localizedDescription() const = 0;
  const char* what() const noexcept override { return whatText_.c_str(); }

 protected:
  void setWhat(std::string text) { whatText_ = std::move(text); }

 private:
  std::string whatText_;
};

// The localized description of any thrown value: a StoreKit error's own, a standard
// exception's what(), or a generic text for anything else.
std::string localizedDescription(const std::exception_ptr& error);

// Foundation's URL loading error: a code (NSURLErrorDomain values) and a localized
// description, which may be empty.
class URLError : public Error {
 public:
  static constexpr int kUnknown = -1;
  static constexpr int kTimedOut = -1001;
  static constexpr int kCannotConnectToHost = -1004;
  static constexpr int kNetworkConnectionLost = -1005;
  static constexpr int kNotConnectedToInternet = -1009;

  // Without a description, the system's text for the code is used.
  explicit URLError(int code, std::optional<std::string> description = std::nullopt);

  int code() const { return code_; }
  std::string localizedDescription() const override { return description_; }

 private:
  int code_;
  std::string description_;
};

class StoreKitError : public Error {
 public:
  enum class Code : int {
    unknown = 0,
    userCancelled = 1,
    networkError = 2,
    systemError = 3,
    notAvailableInStorefront = 4,
    notEntitled = 5,
    unsupported = 6,  // iOS 18.4
  };

  static StoreKitError unknown() { return StoreKitError(Code::unknown); }
  static StoreKitError userCancelled() { return StoreKitError(Code::userCancelled); }
  static StoreKitError networkError(URLError error);
  // The underlying error's plain description is taken from the thrown value (what() of a
  // standard exception).
  static StoreKitError systemError(std::exception_ptr underlying);
  static StoreKitError systemError(std::exception_ptr underlying, std::string description);
  static StoreKitError notAvailableInStorefront() {
    return StoreKitError(Code::notAvailableInStorefront);
  }
  static StoreKitError notEntitled() { return StoreKitError(Code::notEntitled); }
  static StoreKitError unsupported();  // aborts before iOS 18.4
  // Any code, including one that no case here names.
  static StoreKitError withCode(Code code) { return StoreKitError(code); }

  Code code() const { return code_; }
  // The carried URLError of a network error; nothing for the other cases.
  const std::optional<URLError>& urlError() const { return urlError_; }
  // The underlying error of a system error and its plain description (as printing the value
  // gives it); empty for the other cases.
  const std::exception_ptr& underlyingError() const { return underlying_; }
  const std::string& underlyingErrorDescription() const { return underlyingDescription_; }

  std::string localizedDescription() const override;

  // The case name ("userCancelled", "networkError", ...) or "unknownCase(<code>)".
  std::string caseName() const;
  // The error a case name stands for, with default payloads; nothing for other names.
  static std::optional<StoreKitError> named(std::string_view name);

 private:
  explicit StoreKitError(Code code);

  Code code_;
  std::optional<URLError> urlError_;
  std::exception_ptr underlying_;
  std::string underlyingDescription_;
};

class PurchaseError : public Error {
 public:
  enum class Code : int {
    invalidQuantity = 0,
    productUnavailable = 1,
    purchaseNotAllowed = 2,
    ineligibleForOffer = 3,
    invalidOfferIdentifier = 4,
    invalidOfferPrice = 5,
    invalidOfferSignature = 6,
    missingOfferParameters = 7,
  };

  explicit PurchaseError(Code code);
  Code code() const { return code_; }
  std::string localizedDescription() const override;
  std::string caseName() const;
  static std::optional<PurchaseError> named(std::string_view name);

 private:
  Code code_;
};

class VerificationError : public Error {
 public:
  enum class Code : int {
    revokedCertificate = 0,
    invalidCertificateChain = 1,
    invalidDeviceVerification = 2,
    invalidEncoding = 3,
    invalidSignature = 4,
    missingRequiredProperties = 5,
  };

  explicit VerificationError(Code code);
  Code code() const { return code_; }
  std::string localizedDescription() const override;
  std::string caseName() const;
  static std::optional<VerificationError> named(std::string_view name);

 private:
  Code code_;
};

// Throws the StoreKit error that a store's failure stands for.
[[noreturn]] void throwStoreFailure(const appstore::StoreFailure& failure);

}  // namespace storekit
