// P1, encoding: a GetAllTransactionsResponse of 10,000 transaction records through the host
// encoder, beside the floor (a plain copy of the same bytes into a new string) and beside
// peers serialising the identical data: nlohmann-json ordered_json in this process, Python's
// orjson and Node's JSON.stringify in their own.
//
// The dataset is generated once (fixed seed, every optional field present in half of the
// records, a 2 KB token in each) and written to <out>/p1_dataset.json. Every contender reads
// that file into its own document (our records through the host decoder, an ordered_json,
// Python dicts, JavaScript objects), and every output is compared byte for byte with the
// file before anything is timed. What is timed is turning the document into a new text, as
// a caller would; nlohmann building its document from our records as well is timed for
// information.
#include "bench_support.h"

#include "host/json_coding.h"
#include "platform/date.h"
#include "records/service_records.h"

#include <nlohmann/json.hpp>

#include <malloc.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace {

using namespace VornTeskPaymentsAddonApple;
using nlohmann::ordered_json;

constexpr std::size_t kRecords = 10'000;

// Every contender writes a new text of some 34 MB. On these virtual machines a fresh page
// costs about 2 us to fault in, some 17 ms for the text, seven times the copy itself; and
// whether glibc hands out fresh pages (mmap, from 32 MB up) or recycled ones depends on what
// ran before. So this process and the Python peer tell glibc to keep large buffers in the
// heap (no mmap, no trimming): every in-process contender and orjson write into warm,
// recycled memory, and the figures compare the work of serialising. (V8 manages its own
// heap.)
constexpr int kTrimThreshold = 1 << 30;
const std::string kWarmHeapEnvironment[] = {"MALLOC_MMAP_MAX_=0",
                                            "MALLOC_TRIM_THRESHOLD_=1073741824"};
constexpr std::size_t kJWSLength = 2048;

// splitmix64: the same dataset on every run and every machine.
class Random {
 public:
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  std::uint64_t below(std::uint64_t limit) { return next() % limit; }

  std::string characters(std::string_view alphabet, std::size_t length) {
    std::string text(length, ' ');
    for (char& c : text) c = alphabet[below(alphabet.size())];
    return text;
  }
  std::string base64URL(std::size_t length) {
    return characters("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_", length);
  }
  std::string uuid(bool upper) {
    const std::string_view hex = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text = characters(hex, 32);
    for (std::size_t at : {8, 13, 18, 23}) text.insert(at, 1, '-');
    return text;
  }
  // A compact JWS of `length` characters: header, payload and a 64-byte signature.
  std::string jws(std::size_t length) {
    const std::size_t signature = 86;
    const std::size_t header = (length - signature - 2) * 2 / 3;
    return base64URL(header) + "." + base64URL(length - signature - 2 - header) + "." +
           base64URL(signature);
  }

 private:
  std::uint64_t state_ = 0x5EEDF00DULL;
};

// A transaction as the service reports one; every optional field is present in the records
// with an even index and absent in the others.
AppleTransaction makeRecord(std::size_t index, Random& random) {
  static const char* const kProducts[] = {
      "com.vorntesk.sample.coins100", "com.vorntesk.sample.removeads",
      "com.vorntesk.sample.pro.monthly", "com.vorntesk.sample.basic.monthly",
      "com.vorntesk.sample.seasonpass"};
  const bool full = index % 2 == 0;
  const platform::Date start = *platform::parseRFC3339("2024-01-01T00:00:00.000Z");
  const auto purchase = start + std::chrono::milliseconds(random.below(63'072'000'000ULL));

  AppleTransaction t;
  t.id = 2000000000000000ULL + index * 7 + random.below(7);
  t.originalId = random.below(4) == 0 ? t.id - random.below(100'000) : t.id;
  const std::size_t product = random.below(5);
  t.productId = kProducts[product];
  t.productType = static_cast<AppleProductType>(1 + product % 4);
  t.purchaseDate = purchase;
  t.originalPurchaseDate = purchase - std::chrono::milliseconds(random.below(10'000'000'000ULL));
  t.revocationReason = full ? AppleRevocationReason::other : AppleRevocationReason::unspecified;
  t.quantity = static_cast<std::int32_t>(1 + random.below(3));
  t.transactionReason =
      random.below(3) == 0 ? AppleTransactionReason::renewal : AppleTransactionReason::purchase;
  t.signedDate = purchase + std::chrono::milliseconds(random.below(5'000));
  t.environment = AppleEnvironment::xcode;
  t.ownershipType = AppleOwnershipType::purchased;
  t.jwsRepresentation = random.jws(kJWSLength);
  t.verificationStatus = AppleVerificationStatus::verified;
  t.verificationError = AppleVerificationError::unspecified;
  t.bundleId = "com.vorntesk.example";
  t.isUpgraded = random.below(10) == 0;
  t.offerType = full ? AppleOfferType::introductory : AppleOfferType::unspecified;
  t.storefrontCountryCode = "USA";
  t.deviceVerification =
      random.characters("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", 64);
  t.deviceVerificationNonce = random.uuid(true);
  if (full) {
    t.expirationDate = purchase + std::chrono::hours(24 * 30);
    t.revocationDate = purchase + std::chrono::hours(24 * 3);
    t.webOrderLineItemId = std::to_string(2000000012345678ULL + index);
    t.subscriptionGroupId = "21345678";
    t.appAccountToken = random.uuid(true);
    t.appBundleId = "com.vorntesk.example";
    t.offerId = "com.vorntesk.sample.intro.week";
    t.offerPaymentModeStringRepresentation = "FREE_TRIAL";
    t.offerPeriod = "P1W";
    t.price = platform::Decimal::parse(std::to_string(random.below(100)) + "." +
                                       std::to_string(10 + random.below(90)));
    t.currency = "USD";
    t.appTransactionId = std::to_string(704289572311245889ULL + random.below(1'000'000));
    t.signedRenewalInfo = random.jws(1024);
  }
  return t;
}

GetAllTransactionsResponse makeResponse() {
  Random random;
  GetAllTransactionsResponse response;
  response.transactions.reserve(kRecords);
  for (std::size_t i = 0; i < kRecords; ++i) response.transactions.push_back(makeRecord(i, random));
  return response;
}

// The same records as an ordered_json document, keys in the record's order.
ordered_json toNlohmann(const GetAllTransactionsResponse& response) {
  auto date = [](platform::Date value) { return platform::formatRFC3339(value); };
  ordered_json list = ordered_json::array();
  for (const AppleTransaction& t : response.transactions) {
    ordered_json r = ordered_json::object();
    r["id"] = t.id;
    r["originalId"] = t.originalId;
    r["productId"] = t.productId;
    r["productType"] = rawValue(t.productType);
    r["purchaseDate"] = date(t.purchaseDate);
    r["originalPurchaseDate"] = date(t.originalPurchaseDate);
    if (t.expirationDate) r["expirationDate"] = date(*t.expirationDate);
    if (t.revocationDate) r["revocationDate"] = date(*t.revocationDate);
    r["revocationReason"] = rawValue(t.revocationReason);
    if (t.webOrderLineItemId) r["webOrderLineItemId"] = *t.webOrderLineItemId;
    if (t.subscriptionGroupId) r["subscriptionGroupId"] = *t.subscriptionGroupId;
    if (t.appAccountToken) r["appAccountToken"] = *t.appAccountToken;
    r["quantity"] = t.quantity;
    r["transactionReason"] = rawValue(t.transactionReason);
    r["signedDate"] = date(t.signedDate);
    r["environment"] = rawValue(t.environment);
    r["ownershipType"] = rawValue(t.ownershipType);
    r["jwsRepresentation"] = t.jwsRepresentation;
    r["verificationStatus"] = rawValue(t.verificationStatus);
    r["verificationError"] = rawValue(t.verificationError);
    r["bundleId"] = t.bundleId;
    if (t.appBundleId) r["appBundleId"] = *t.appBundleId;
    r["isUpgraded"] = t.isUpgraded;
    r["offerType"] = rawValue(t.offerType);
    if (t.offerId) r["offerId"] = *t.offerId;
    if (t.offerPaymentModeStringRepresentation) {
      r["offerPaymentModeStringRepresentation"] = *t.offerPaymentModeStringRepresentation;
    }
    if (t.offerPeriod) r["offerPeriod"] = *t.offerPeriod;
    if (t.price) r["price"] = t.price->toString();
    if (t.currency) r["currency"] = *t.currency;
    r["storefrontCountryCode"] = t.storefrontCountryCode;
    r["deviceVerification"] = t.deviceVerification;
    r["deviceVerificationNonce"] = t.deviceVerificationNonce;
    if (t.appTransactionId) r["appTransactionId"] = *t.appTransactionId;
    if (t.signedRenewalInfo) r["signedRenewalInfo"] = *t.signedRenewalInfo;
    list.push_back(std::move(r));
  }
  ordered_json document = ordered_json::object();
  document["transactions"] = std::move(list);
  return document;
}

const GetAllTransactionsResponse* gResponse = nullptr;
const std::string* gReference = nullptr;  // our output
const ordered_json* gNlohmann = nullptr;
std::unique_ptr<bench::PeerProcess> gOrjson;
std::unique_ptr<bench::PeerProcess> gV8;

void setBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(gReference->size()));
}

void Encode_HostEncoder(benchmark::State& state) {
  const auto encoder = vorn::tesk::TeskJSONCoding::makeEncoder();
  for (auto _ : state) {
    std::string text = encoder.encode(*gResponse);
    benchmark::DoNotOptimize(text.data());
  }
  setBytes(state);
}

void Floor_CopyOfTheBytes(benchmark::State& state) {
  for (auto _ : state) {
    std::string text(gReference->data(), gReference->size());
    benchmark::DoNotOptimize(text.data());
    benchmark::ClobberMemory();
  }
  setBytes(state);
}

void Peer_NlohmannDump(benchmark::State& state) {
  for (auto _ : state) {
    std::string text = gNlohmann->dump();
    benchmark::DoNotOptimize(text.data());
  }
  setBytes(state);
}

// For information only: what nlohmann costs when it starts from the records too.
void Info_NlohmannBuildAndDump(benchmark::State& state) {
  for (auto _ : state) {
    std::string text = toNlohmann(*gResponse).dump();
    benchmark::DoNotOptimize(text.data());
  }
  setBytes(state);
}

void Peer_OrjsonDumps(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(gOrjson->timeOne());
  setBytes(state);
}

void Peer_V8JSONStringify(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(gV8->timeOne());
  setBytes(state);
}

// Starts a peer and checks its output against ours; nothing (and a printed reason) when
// the peer is missing or writes other bytes.
std::unique_ptr<bench::PeerProcess> startPeer(const std::string& label,
                                              const std::vector<std::string>& command,
                                              const std::string& outputPath) {
  std::string why;
  auto peer = bench::PeerProcess::start(command, why);
  if (!peer) {
    std::cout << label << ": skipped (" << why << ")\n";
    return nullptr;
  }
  const auto output = bench::readFile(outputPath);
  const std::string verdict = output ? bench::compareBytes(*gReference, *output) : "no output";
  std::cout << label << " output: " << verdict << "\n";
  if (verdict != "identical") {
    std::cout << label << ": skipped, its output is not the same text\n";
    return nullptr;
  }
  return peer;
}

template <class Function>
void add(const char* name, Function function, bool manualTime = false) {
  auto* registered = benchmark::RegisterBenchmark(name, function);
  registered->Unit(benchmark::kMillisecond)->Repetitions(15)->ReportAggregatesOnly(true);
  registered->MinTime(0.3);
  if (manualTime) registered->UseManualTime();
}

}  // namespace

int main(int argc, char** argv) {
  // Large buffers stay in the heap and are recycled warm (see kWarmHeapEnvironment).
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, kTrimThreshold);
  const std::string out = bench::outputDirectory(argc, argv);
  // Every contender starts from the same file and reads it into its own document: our
  // records through the host decoder, like the peers with their parsers.
  const std::string reference = vorn::tesk::TeskJSONCoding::makeEncoder().encode(makeResponse());
  const auto response =
      vorn::tesk::TeskJSONCoding::makeDecoder().decode<GetAllTransactionsResponse>(reference);
  const auto nlohmannDocument = ordered_json::parse(reference);
  gResponse = &response;
  gReference = &reference;
  gNlohmann = &nlohmannDocument;
  std::cout << "dataset: " << kRecords << " records, " << reference.size() << " bytes of JSON\n";

  // The text is also the peers' input, so it is written before they start.
  const std::string dataset = out + "/p1_dataset.json";
  if (!bench::writeFile(dataset, reference)) {
    std::cerr << "cannot write " << dataset << "\n";
    return 1;
  }
  const std::string ourVerdict =
      bench::compareBytes(reference, vorn::tesk::TeskJSONCoding::makeEncoder().encode(response));
  std::cout << "host encoder, records read back from the file: " << ourVerdict << "\n";
  if (ourVerdict != "identical") return 1;
  const std::string nlohmannVerdict = bench::compareBytes(reference, nlohmannDocument.dump());
  std::cout << "nlohmann ordered_json output: " << nlohmannVerdict << "\n";

  const std::string peers = std::string(VORNTESK_SOURCE_DIR) + "/bench/peers/";
  gOrjson = startPeer("orjson",
                      {"env", kWarmHeapEnvironment[0], kWarmHeapEnvironment[1], "python3",
                       peers + "orjson_peer.py", dataset, out + "/p1_orjson.json"},
                      out + "/p1_orjson.json");
  gV8 =
      startPeer("node JSON.stringify", {"node", peers + "v8_peer.js", dataset, out + "/p1_v8.json"},
                out + "/p1_v8.json");

  add("Encode_HostEncoder", Encode_HostEncoder);
  add("Floor_CopyOfTheBytes", Floor_CopyOfTheBytes);
  const bool nlohmannSame = nlohmannVerdict == "identical";
  if (nlohmannSame) add("Peer_NlohmannDump", Peer_NlohmannDump);
  add("Info_NlohmannBuildAndDump", Info_NlohmannBuildAndDump);
  if (gOrjson) add("Peer_OrjsonDumps", Peer_OrjsonDumps, true);
  if (gV8) add("Peer_V8JSONStringify", Peer_V8JSONStringify, true);

  const int status =
      bench::runBenchmarks(argc, argv, "encoding_bench", [&](const bench::Medians& m) {
        auto median = [&](const std::string& name) { return bench::medianNanoseconds(m, name); };
        const double ours = median("Encode_HostEncoder");
        auto peerFigure = [&](const std::string& figure, bool available, const std::string& name,
                              const std::string& why) {
          if (!available) return bench::Figure{figure, std::nullopt, "x", why};
          return bench::Figure{figure, median(name) / ours, "x", ""};
        };
        return std::vector<bench::Figure>{
            {"p1_vs_memcpy", ours / median("Floor_CopyOfTheBytes"), "x", ""},
            peerFigure("p1_vs_orjson", gOrjson != nullptr, "Peer_OrjsonDumps",
                       "orjson unavailable"),
            peerFigure("p1_vs_nlohmann", nlohmannSame, "Peer_NlohmannDump", "output differs"),
            peerFigure("p1_vs_v8", gV8 != nullptr, "Peer_V8JSONStringify", "node unavailable"),
        };
      });
  gOrjson.reset();
  gV8.reset();
  return status;
}
