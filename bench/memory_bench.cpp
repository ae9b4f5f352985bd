// P5, memory: the peak memory it takes to answer "GetAllTransactions" for 10,000 stored
// transactions, divided by the size of the answer.
//
// Method: each measurement runs in a fresh child process (this program with --child), so
// nothing one measurement leaves behind shapes the next. The child loads the sample store,
// registers the service through the exported function, answers one small call to bring in
// the code and the threads, inserts 10,000 transactions (clones, with new ids, of payloads
// the store signed for real purchases: half a plain consumable, half a refunded
// subscription bought with an introductory offer and an app account token) and then:
//   1. malloc_trim(0), so freed heap memory goes back to the system and whatever the call
//      allocates shows up as resident memory;
//   2. reads VmRSS, and resets VmHWM to it by writing 5 to /proc/self/clear_refs;
//   3. makes the call through the dispatcher and waits for the answer (the answer text is
//      still alive in the completion, so the peak includes it);
//   4. reads VmHWM: peak growth = VmHWM - VmRSS before.
// The figure is the median over five children of peak growth / answer size.
#include "bench_support.h"

#include "bridge/register_service.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/uuid.h"
#include "appstore/local_store.h"
#include "storekit/jws.h"

#include <boost/json.hpp>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace json = boost::json;

constexpr std::size_t kTransactions = 10'000;
constexpr int kChildren = 5;

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long statusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return std::stol(line.substr(field.size() + 1));
    }
  }
  return -1;
}

std::string call(const std::string& method) {
  std::promise<std::string> answer;
  auto future = answer.get_future();
  vorn::tesk::TeskBridgeDispatcher::shared().callAsync(
      "AppleStoreKitService", method, "{}",
      [&answer](std::string envelope) { answer.set_value(std::move(envelope)); });
  return future.get();
}

int child() {
  auto store = appstore::LocalStore::createFromFile(std::string(VORNTESK_SOURCE_DIR) +
                                                    "/examples/SampleStore.storekit");
  appstore::LocalStore::setShared(store);
  Vorn_Tesk_AppleStoreKitService_Register();

  // Two real purchases give the payload templates.
  const auto plain = store->buyProduct("com.vorntesk.sample.coins100");
  appstore::PurchaseRequest withToken;
  withToken.productID = "com.vorntesk.sample.pro.monthly";
  withToken.appAccountToken = platform::UUID::random();
  const auto full = store->buyProduct(withToken);
  store->refundTransaction(full.id);
  std::vector<json::object> templates;
  for (const auto& entry : store->allTransactions()) {
    templates.push_back(json::parse(*storekit::decodeJWSPayload(entry.jwsRepresentation)).as_object());
  }
  if (templates.size() != 2) {
    std::cerr << "memory_bench: expected two template transactions\n";
    return 1;
  }
  (void)call("GetAllTransactions");  // brings in the code and the threads
  store->clearTransactions();

  for (std::size_t i = 0; i < kTransactions; ++i) {
    json::object payload = templates[i % 2];
    const std::string id = std::to_string(2000000000000000ULL + i);
    payload["transactionId"] = id;
    payload["originalTransactionId"] = id;
    store->insertTransaction(std::move(payload));
  }

  malloc_trim(0);
  const long before = statusKiB("VmRSS");
  bool reset = false;
  if (std::ofstream clear("/proc/self/clear_refs"); clear) {
    clear << "5";
    clear.flush();
    reset = static_cast<bool>(clear);
  }
  if (!reset) {
    std::cout << "error: /proc/self/clear_refs cannot reset the peak\n";
    return 0;
  }
  std::size_t answerBytes = 0;
  std::size_t transactions = 0;
  {
    const std::string answer = call("GetAllTransactions");
    answerBytes = answer.size();
    const long peak = statusKiB("VmHWM");
    const auto document = json::parse(answer);
    transactions = document.at("success").at("transactions").as_array().size();
    std::cout << before << " " << peak << " " << answerBytes << " " << transactions << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--child") return child();
  const std::string out = bench::outputDirectory(argc, argv);

  char self[4096] = {};
  if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
    std::cerr << "memory_bench: cannot find its own program\n";
    return 1;
  }
  const std::string command = "'" + std::string(self) + "' --child";

  std::vector<double> ratios;
  std::string problem;
  for (int i = 0; i < kChildren; ++i) {
    const auto line = bench::childAnswer(command, problem);
    if (!line) break;
    std::istringstream fields(*line);
    long before = 0;
    long peak = 0;
    double answerBytes = 0;
    std::size_t transactions = 0;
    if (!(fields >> before >> peak >> answerBytes >> transactions)) {
      problem = *line;
      break;
    }
    if (transactions != kTransactions) {
      problem = "the answer held " + std::to_string(transactions) + " transactions";
      break;
    }
    const double growth = static_cast<double>(peak - before) * 1024.0;
    ratios.push_back(growth / answerBytes);
    std::printf(
        "child %d: resident %ld KiB before, peak %ld KiB, growth %.1f MiB, answer %.1f MiB"
        " -> %.3f\n",
        i + 1, before, peak, growth / 1048576.0, answerBytes / 1048576.0, ratios.back());
  }
  std::vector<bench::Figure> figures;
  if (ratios.size() == kChildren) {
    std::sort(ratios.begin(), ratios.end());
    figures.push_back({"p5_peak_over_output", ratios[kChildren / 2], "x", ""});
  } else {
    std::cout << "memory_bench: no figure (" << problem << ")\n";
    figures.push_back({"p5_peak_over_output", std::nullopt, "x", problem});
  }
  return bench::writeFigures(out, "memory_bench", figures) ? 0 : 1;
}
