// How the device checks the tokens it hands out: against the store's own device identifier,
// and with the verification failures a session forces, for one transaction or for every
// verification, from the next token handed out on. (Set in the configuration file:
// store_configuration_test.cpp.)
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "appstore/local_store.h"
#include "storekit/device.h"
#include "storekit/transaction.h"

namespace storekit {
namespace {

using appstore::LocalStore;
using appstore::StoreFailure;
using appstore::StoreKitAPI;
using Code = VerificationError::Code;

const std::string kSampleFile = VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit";
const std::string kCoins = "com.vorntesk.sample.coins100";

// The outcome of verifying each transaction of the history, by id: nothing when verified.
std::map<std::uint64_t, std::optional<Code>> outcomes() {
  std::map<std::uint64_t, std::optional<Code>> result;
  auto all = Transaction::all();
  for (int i = 0; i < 100; ++i) {
    const auto element = all.next();
    if (!element) break;
    std::optional<Code> error;
    if (!element->isVerified()) error = element->verificationError()->code();
    result[element->unsafePayloadValue().id()] = error;
  }
  return result;
}

class DeviceVerificationTest : public ::testing::Test {
 protected:
  void install(std::shared_ptr<LocalStore> store) {
    store_ = std::move(store);
    const auto previous = LocalStore::setShared(store_);
    if (!previous_) previous_ = previous;
  }
  void TearDown() override { LocalStore::setShared(previous_); }

  std::shared_ptr<LocalStore> store_;
  std::shared_ptr<LocalStore> previous_;
};

TEST_F(DeviceVerificationTest, FailuresForcedByControlsApplyFromTheNextTokenOn) {
  install(LocalStore::createFromFile(kSampleFile));
  const auto first = store_->buyProduct(kCoins).id;
  const auto second = store_->buyProduct(kCoins).id;
  using Outcomes = std::map<std::uint64_t, std::optional<Code>>;
  EXPECT_EQ(outcomes(), (Outcomes{{first, std::nullopt}, {second, std::nullopt}}));

  store_->setVerificationFailure(first, StoreFailure::named("revokedCertificate"));
  EXPECT_EQ(outcomes(), (Outcomes{{first, Code::revokedCertificate}, {second, std::nullopt}}));

  store_->setSimulatedError(StoreKitAPI::verification, StoreFailure::named("invalidSignature"));
  EXPECT_EQ(outcomes(), (Outcomes{{first, Code::revokedCertificate}, {second, Code::invalidSignature}}));

  store_->setSimulatedError(StoreKitAPI::verification, std::nullopt);
  store_->setVerificationFailure(first, std::nullopt);
  EXPECT_EQ(outcomes(), (Outcomes{{first, std::nullopt}, {second, std::nullopt}}));
}

TEST_F(DeviceVerificationTest, ATokenMadeForAnotherDeviceFailsItsDeviceVerification) {
  // Two stores signing with the same identity, each with a device of its own.
  auto other = LocalStore::createFromFile(kSampleFile);
  install(LocalStore::createFromFile(kSampleFile));
  ASSERT_NE(other->deviceIdentifier(), store_->deviceIdentifier());
  ASSERT_EQ(other->rootCertificate(), store_->rootCertificate());
  const auto foreign = other->buyProduct(kCoins);
  const auto own = store_->buyProduct(kCoins).id;
  EXPECT_EQ(outcomes(), (std::map<std::uint64_t, std::optional<Code>>{{own, std::nullopt}}));
  store_->replaceSignedTransaction(own, foreign.jws);
  const auto element = Transaction::all().next();
  ASSERT_TRUE(element);
  EXPECT_EQ(element->verificationError()->code(), Code::invalidDeviceVerification);
}

}  // namespace
}  // namespace storekit
