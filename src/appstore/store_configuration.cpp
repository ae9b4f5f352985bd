#include "appstore/store_configuration.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <fstream>
#include <sstream>

#include <boost/json/parse.hpp>
#include <boost/json/stream_parser.hpp>
#include <boost/json/serialize.hpp>

#include "appstore/subscription_rules.h"

namespace appstore {
namespace json = boost::json;
namespace {

// Far beyond any real offer, small enough that period arithmetic cannot overflow.
constexpr std::int64_t kMaxPeriodValue = 999;

// Walks the document keeping the path to the value at hand, so every complaint can say where.
class Reader {
 public:
  Reader(const json::value& value, std::string path, const std::string& file)
      : value_(value), path_(std::move(path)), file_(file) {}

  [[noreturn]] void fail(const std::string& problem) const {
    throw ConfigurationError(file_ + ": " + (path_.empty() ? "top level" : path_) + ": " + problem);
  }

  const json::value& value() const { return value_; }
  const std::string& path() const { return path_; }

  const json::object& object() const {
    if (!value_.is_object()) fail("expected an object");
    return value_.get_object();
  }
  const json::array& array() const {
    if (!value_.is_array()) fail("expected a list");
    return value_.get_array();
  }

  // A member that may be absent or null.
  std::optional<Reader> member(std::string_view key) const {
    const auto* found = object().if_contains(key);
    if (!found || found->is_null()) return std::nullopt;
    return Reader(*found, join(key), file_);
  }
  Reader required(std::string_view key) const {
    auto found = member(key);
    if (!found) Reader(value_, join(key), file_).fail("missing");
    return *found;
  }
  std::vector<Reader> elements() const {
    std::vector<Reader> result;
    const auto& list = array();
    for (std::size_t i = 0; i < list.size(); ++i) {
      result.emplace_back(list[i], path_ + "[" + std::to_string(i) + "]", file_);
    }
    return result;
  }
  std::vector<Reader> listMember(std::string_view key) const {
    auto found = member(key);
    return found ? found->elements() : std::vector<Reader>{};
  }

  std::string string() const {
    if (!value_.is_string()) fail("expected a string");
    return std::string(value_.get_string());
  }
  std::string stringMember(std::string_view key, std::string fallback = {}) const {
    auto found = member(key);
    return found ? found->string() : fallback;
  }
  bool boolMember(std::string_view key, bool fallback = false) const {
    auto found = member(key);
    if (!found) return fallback;
    if (!found->value_.is_bool()) found->fail("expected true or false");
    return found->value_.get_bool();
  }
  std::int64_t integer() const {
    if (value_.is_int64()) return value_.get_int64();
    if (value_.is_uint64() && value_.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
      return static_cast<std::int64_t>(value_.get_uint64());
    }
    // Some writers print whole numbers as "2.0".
    if (value_.is_double()) {
      const double number = value_.get_double();
      if (number >= -9.0e15 && number <= 9.0e15 && number == std::floor(number)) {
        return static_cast<std::int64_t>(number);
      }
    }
    fail("expected a whole number");
  }
  // Prices are decimal text ("2.99", "29", "12.00"); a bare number is read from its text.
  platform::Decimal decimal() const {
    std::optional<platform::Decimal> parsed;
    if (value_.is_string()) {
      parsed = platform::Decimal::parse(value_.get_string());
    } else if (value_.is_number()) {
      parsed = platform::Decimal::parse(json::serialize(value_));
    } else {
      fail("expected a price");
    }
    if (!parsed) fail("not a decimal price: " + json::serialize(value_));
    if (parsed->isNegative()) fail("a price cannot be negative");
    return *parsed;
  }
  SubscriptionPeriod period() const {
    auto parsed = SubscriptionPeriod::parse(string());
    if (!parsed || parsed->value > kMaxPeriodValue) {
      fail("not a subscription period: " + json::serialize(value_));
    }
    return *parsed;
  }

 private:
  std::string join(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
  }

  const json::value& value_;
  std::string path_;
  const std::string& file_;
};

std::vector<Localization> readLocalizations(const Reader& owner) {
  std::vector<Localization> result;
  for (const auto& entry : owner.listMember("localizations")) {
    result.push_back({entry.stringMember("locale"), entry.stringMember("displayName"),
                      entry.stringMember("description")});
  }
  return result;
}

ConfiguredOffer readOffer(const Reader& reader, bool needsOfferID) {
  ConfiguredOffer offer;
  offer.internalID = reader.stringMember("internalID");
  offer.referenceName = reader.stringMember("referenceName");
  if (auto id = reader.member("offerID")) {
    offer.offerID = id->string();
  } else if (auto code = reader.member("offerCode")) {
    offer.offerID = code->string();
  } else if (needsOfferID) {
    reader.required("offerID");
  }
  const auto modeReader = reader.required("paymentMode");
  const auto mode = foldName(modeReader.string());
  if (mode == "free" || mode == "freetrial") {
    offer.paymentMode = ConfiguredOffer::Mode::freeTrial;
  } else if (mode == "payasyougo") {
    offer.paymentMode = ConfiguredOffer::Mode::payAsYouGo;
  } else if (mode == "payupfront") {
    offer.paymentMode = ConfiguredOffer::Mode::payUpFront;
  } else {
    modeReader.fail("unknown payment mode \"" + modeReader.string() + "\"");
  }
  offer.period = reader.required("subscriptionPeriod").period();
  if (auto count = reader.member("numberOfPeriods")) {
    offer.numberOfPeriods = count->integer();
    if (offer.numberOfPeriods < 1 || offer.numberOfPeriods > kMaxPeriodValue) {
      count->fail("must be between 1 and " + std::to_string(kMaxPeriodValue));
    }
  }
  if (offer.paymentMode != ConfiguredOffer::Mode::payAsYouGo) offer.numberOfPeriods = 1;
  if (offer.paymentMode == ConfiguredOffer::Mode::freeTrial) {
    offer.price = platform::Decimal();
  } else {
    offer.price = reader.required("displayPrice").decimal();
  }
  return offer;
}

ConfiguredProduct readProduct(const Reader& reader, bool subscription) {
  ConfiguredProduct product;
  product.productID = reader.required("productID").string();
  if (product.productID.empty()) reader.required("productID").fail("must not be empty");
  product.referenceName = reader.stringMember("referenceName", product.productID);
  product.internalID = reader.stringMember("internalID");
  const auto typeReader = reader.required("type");
  const auto type = typeReader.string();
  if (type == "Consumable") {
    product.kind = ConfiguredProduct::Kind::consumable;
  } else if (type == "NonConsumable") {
    product.kind = ConfiguredProduct::Kind::nonConsumable;
  } else if (type == "NonRenewingSubscription") {
    product.kind = ConfiguredProduct::Kind::nonRenewable;
  } else if (type == "RecurringSubscription" || type == "AutoRenewableSubscription") {
    product.kind = ConfiguredProduct::Kind::autoRenewable;
  } else {
    typeReader.fail("unknown product type \"" + type + "\"");
  }
  if (subscription != (product.kind == ConfiguredProduct::Kind::autoRenewable)) {
    typeReader.fail("\"" + type + "\" does not belong in this list");
  }
  product.price = reader.required("displayPrice").decimal();
  product.familyShareable = reader.boolMember("familyShareable");
  product.localizations = readLocalizations(reader);
  product.json = json::serialize(reader.value());
  if (!subscription) return product;

  product.subscriptionGroupID = reader.stringMember("subscriptionGroupID");
  if (auto level = reader.member("groupNumber")) {
    product.groupLevel = level->integer();
    if (product.groupLevel < 1) level->fail("must be at least 1");
  }
  product.period = reader.required("recurringSubscriptionPeriod").period();
  // Older formats have one introductory offer or null; the newest keeps a list.
  if (auto intro = reader.member("introductoryOffer")) {
    product.introductoryOffer = readOffer(*intro, false);
  } else {
    const auto intros = reader.listMember("introductoryOffers");
    if (!intros.empty()) product.introductoryOffer = readOffer(intros.front(), false);
  }
  for (const auto& offer : reader.listMember("adHocOffers")) {
    product.promotionalOffers.push_back(readOffer(offer, true));
  }
  for (const auto& offer : reader.listMember("codeOffers")) {
    product.codeOffers.push_back(readOffer(offer, false));
  }
  for (const auto& offer : reader.listMember("winbackOffers")) {
    product.winBackOffers.push_back(readOffer(offer, true));
  }
  return product;
}

StoreFailure readSimulatedError(const Reader& current, StoreKitAPI api) {
  using Family = StoreFailure::Family;
  std::string name;
  if (current.value().is_string()) {
    name = current.string();
  } else if (current.value().is_object()) {
    for (const char* key : {"error", "name", "type"}) {
      if (auto found = current.member(key); found && found->value().is_string()) {
        name = found->string();
        break;
      }
    }
  }
  const auto folded = foldName(name);
  if (folded.empty() || folded == "generic") return {Family::storeKit, "unknown"};
  if (auto error = StoreFailure::named(name)) {
    if (!error->fits(api)) current.fail("\"" + name + "\" cannot be simulated for this call");
    return *error;
  }
  // Xcode may name only the family ("network", "system").
  if (api != StoreKitAPI::verification) {
    for (const char* caseName : {"networkError", "systemError", "notAvailableInStorefront",
                                 "notEntitled", "userCancelled", "unknown"}) {
      if (foldName(caseName).rfind(folded, 0) == 0) return {Family::storeKit, caseName};
    }
  }
  current.fail("unknown error \"" + name + "\"");
}

StoreSettings readSettings(const Reader& reader) {
  StoreSettings settings;
  settings.storefront = reader.stringMember("_storefront", settings.storefront);
  settings.locale = reader.stringMember("_locale", settings.locale);
  settings.askToBuyEnabled = reader.boolMember("_askToBuyEnabled");
  // Xcode's editor calls interrupted purchases "billing issues".
  settings.interruptedPurchasesEnabled =
      reader.boolMember("_billingIssuesEnabled") || reader.boolMember("_interruptedPurchasesEnabled");
  settings.failTransactionsEnabled = reader.boolMember("_failTransactionsEnabled");
  settings.shouldEnterBillingRetryOnRenewal = reader.boolMember("_renewalBillingIssuesEnabled");
  settings.billingGracePeriodIsEnabled = reader.boolMember("_billingGracePeriodEnabled");
  settings.disableDialogs = reader.boolMember("_disableDialogs");
  if (auto rate = reader.member("_timeRate")) {
    const auto value = rate->integer();
    if (!isKnownTimeRate(value)) rate->fail(unknownTimeRateMessage(value));
    settings.timeRate = static_cast<int>(value);
  }
  for (const auto& entry : reader.listMember("_storeKitErrors")) {
    if (!entry.boolMember("enabled")) continue;
    const auto nameReader = entry.required("name");
    const auto api = storeKitAPINamed(nameReader.string());
    if (!api) continue;  // a call this store does not simulate
    auto current = entry.member("current");
    auto error = current ? readSimulatedError(*current, *api)
                 : *api == StoreKitAPI::verification
                     ? StoreFailure{StoreFailure::Family::verification, "invalidSignature"}
                     : StoreFailure{StoreFailure::Family::storeKit, "unknown"};
    settings.simulatedErrors.emplace_back(*api, std::move(error));
  }
  return settings;
}

}  // namespace

namespace {

// A locale identifier's language, script and region ("zh_Hant_TW", "pt-BR", "en"), with the
// script a region implies where one language is written in two (Chinese: Traditional in
// Taiwan, Hong Kong and Macao, Simplified elsewhere).
struct LocaleParts {
  std::string language, script, region;
};

LocaleParts localeParts(std::string_view id) {
  LocaleParts parts;
  std::size_t index = 0;
  while (!id.empty()) {
    const auto end = id.find_first_of("_-");
    std::string part(id.substr(0, end));
    id = end == std::string_view::npos ? std::string_view() : id.substr(end + 1);
    if (index++ == 0) {
      for (char& c : part) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      parts.language = part;
    } else if (part.size() == 4) {
      for (char& c : part) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      part[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(part[0])));
      parts.script = part;
    } else if (parts.region.empty()) {
      for (char& c : part) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      parts.region = part;
    }
  }
  if (parts.script.empty() && parts.language == "zh") {
    const bool traditional = parts.region == "TW" || parts.region == "HK" || parts.region == "MO";
    parts.script = traditional ? "Hant" : "Hans";
  }
  return parts;
}

}  // namespace

const Localization* pickLocalization(const std::vector<Localization>& localizations,
                                     std::string_view locale) {
  if (localizations.empty()) return nullptr;
  const auto wanted = localeParts(locale);
  const Localization* best = nullptr;
  int bestScore = 0;
  for (const auto& entry : localizations) {
    const auto offered = localeParts(entry.locale);
    if (offered.language != wanted.language) continue;
    int score = 1;
    if (offered.script == wanted.script) score += 2;
    if (offered.region == wanted.region) score += 1;
    if (score > bestScore) best = &entry, bestScore = score;
  }
  return best ? best : &localizations.front();
}

StoreConfiguration StoreConfiguration::parse(std::string_view text, std::string_view name) {
  const std::string file(name);
  json::error_code ec;
  json::stream_parser parser;
  std::size_t consumed = parser.write_some(text.data(), text.size(), ec);
  if (!ec) parser.finish(ec);
  if (ec || consumed != text.size()) {
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i < consumed && i < text.size(); ++i) {
      if (text[i] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    throw ConfigurationError(file + ": line " + std::to_string(line) + ", column " +
                             std::to_string(column) + ": not valid JSON (" +
                             (ec ? ec.message() : std::string("trailing text")) + ")");
  }
  const json::value document = parser.release();
  const Reader root(document, "", file);
  root.object();

  StoreConfiguration config;
  config.identifier = root.stringMember("identifier");
  if (auto version = root.member("version")) {
    config.versionMajor = static_cast<int>(version->required("major").integer());
    config.versionMinor =
        version->member("minor") ? static_cast<int>(version->required("minor").integer()) : 0;
    if (config.versionMajor < 1) version->required("major").fail("unsupported format version");
  }
  for (const auto& entry : root.listMember("products")) {
    config.products.push_back(readProduct(entry, false));
  }
  for (const auto& entry : root.listMember("nonRenewingSubscriptions")) {
    auto product = readProduct(entry, false);
    if (product.kind != ConfiguredProduct::Kind::nonRenewable) {
      entry.required("type").fail("expected \"NonRenewingSubscription\"");
    }
    config.products.push_back(std::move(product));
  }
  for (const auto& entry : root.listMember("subscriptionGroups")) {
    ConfiguredGroup group;
    group.id = entry.required("id").string();
    group.name = entry.stringMember("name", group.id);
    group.localizations = readLocalizations(entry);
    for (const auto& subscription : entry.listMember("subscriptions")) {
      auto product = readProduct(subscription, true);
      if (product.subscriptionGroupID.empty()) product.subscriptionGroupID = group.id;
      if (product.subscriptionGroupID != group.id) {
        subscription.required("subscriptionGroupID").fail("does not match the group's id \"" +
                                                          group.id + "\"");
      }
      config.products.push_back(std::move(product));
    }
    config.groups.push_back(std::move(group));
  }
  std::vector<std::string> seen;
  for (const auto& product : config.products) {
    if (std::find(seen.begin(), seen.end(), product.productID) != seen.end()) {
      root.fail("product id \"" + product.productID + "\" is used twice");
    }
    seen.push_back(product.productID);
  }
  if (auto settings = root.member("settings")) config.settings = readSettings(*settings);
  return config;
}

StoreConfiguration StoreConfiguration::load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ConfigurationError(path + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  return parse(text.str(), path);
}

const ConfiguredProduct* StoreConfiguration::product(std::string_view productID) const {
  for (const auto& entry : products) {
    if (entry.productID == productID) return &entry;
  }
  return nullptr;
}

const ConfiguredGroup* StoreConfiguration::group(std::string_view groupID) const {
  for (const auto& entry : groups) {
    if (entry.id == groupID) return &entry;
  }
  return nullptr;
}

}  // namespace appstore
