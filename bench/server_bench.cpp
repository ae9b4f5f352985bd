// The App Store Server API's throughput, both figures measured on loopback in this process.
//
// P9, a history page: GET /inApps/v2/history/{id} answered by AppStoreServer from a store of 24
// transactions, each answer 200 with a page of 20 signed transactions, beside a plain
// httplib::Server (the same library) answering one route with a fixed small JSON body. Both
// are called the same way: one keep-alive client with TCP_NODELAY, one request at a time,
// each with a fresh bearer token signed just before it, as Apple's App Store Server Library
// signs one for every call. Figure: history pages per second / fixed answers per second.
//
// P10, notification delivery: the store's outbox delivered by the notification sender to a
// receiver on loopback that answers 200 (httplib, in this process). Timed: from the sender's
// start until the receiver has the last of a batch of notifications the store made beforehand
// (each attempt is recorded in the ledger, as in use). Beside it the cryptography each
// notification cannot avoid: signing one notification payload. Figure: notifications
// delivered per second x the time to sign one, i.e. delivery throughput as a share of the
// signing throughput; 1 would be delivery as fast as the store can sign.
#include "bench_support.h"

#include "appstore/local_store.h"
#include "appstore/server/app_store_server.h"
#include "appstore/server/bearer_token.h"
#include "appstore/server/notification_sender.h"

#include <httplib.h>
#include <sys/resource.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using appstore::LocalStore;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kNotifications = 400;
const std::string kCoins = "com.vorntesk.sample.coins100";

std::shared_ptr<LocalStore> sampleStore() {
  return LocalStore::createFromFile(std::string(VORNTESK_SOURCE_DIR) + "/examples/SampleStore.storekit");
}

// Counts the notifications POSTed to it and answers each with 200.
class Receiver {
 public:
  Receiver() {
    server_.Post("/notifications", [this](const httplib::Request&, httplib::Response& response) {
      {
        std::lock_guard lock(mutex_);
        ++count_;
      }
      arrived_.notify_all();
      response.status = 200;
    });
    // As a developer's web server keeps a connection (nginx: 1,000 requests by default).
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_max_count(1000);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("the receiver cannot listen on loopback");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~Receiver() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/notifications"; }
  long count() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  // Whether `total` have arrived within a minute.
  bool waitFor(long total) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, 60s, [&] { return count_ >= total; });
  }

 private:
  httplib::Server server_;
  int port_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  long count_ = 0;
};

void Notifications_Delivered(benchmark::State& state) {
  Receiver receiver;
  for (auto _ : state) {
    auto store = sampleStore();
    store->setNotificationsURL(receiver.url());
    for (int i = 0; i < kNotifications; ++i) store->buyProduct(kCoins);
    const long before = receiver.count();
    const auto started = Clock::now();
    auto sender = appstore::server::NotificationSender::start(store);
    if (!receiver.waitFor(before + kNotifications)) {
      state.SkipWithError("the notifications were not all delivered within a minute");
      return;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
    sender.reset();
  }
  state.SetItemsProcessed(state.iterations() * kNotifications);
}

// One notification's payload, as the store signs it, signed with the store's key.
void Floor_SignNotification(benchmark::State& state) {
  const auto store = sampleStore();
  store->setNotificationsURL("http://127.0.0.1:9/");
  store->buyProduct(kCoins);
  const auto made = store->dueNotifications(1).at(0).signedPayload;
  const auto payload = made.substr(0, made.rfind('.'));
  for (auto _ : state) benchmark::DoNotOptimize(store->signingAuthority().sign(payload));
}

BENCHMARK(Notifications_Delivered)
    ->Repetitions(9)->ReportAggregatesOnly(true)->Iterations(2)->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Floor_SignNotification)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.2)->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// --- P9 -----------------------------------------------------------------------------------

namespace json = boost::json;
constexpr std::size_t kPageTransactions = 20;
constexpr int kStoreTransactions = 24;

// The two servers side by side, made once for the whole run: the App Store Server API over a
// store of kStoreTransactions purchases, and a plain httplib::Server with one fixed route.
class HistoryServers {
 public:
  static HistoryServers& shared() {
    static HistoryServers servers;
    return servers;
  }

  // A bearer token for this store's API, made now, valid for five minutes.
  std::string bearer() const {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return appstore::server::makeBearerToken(key_, store_->bundleID(), now);
  }

  std::string apiURL() const { return api_->url(); }
  std::string historyPath() const { return historyPath_; }
  std::string fixedURL() const { return "http://127.0.0.1:" + std::to_string(fixedPort_); }
  static constexpr const char* kFixedPath = "/fixed";
  static constexpr const char* kFixedBody = R"({"status":"ok","revision":"1","hasMore":false})";
  static constexpr const char* kPageCopyPath = "/page";
  std::size_t pageCopySize() const { return pageCopy_.size(); }

  ~HistoryServers() {
    fixed_.stop();
    fixedThread_.join();
  }

 private:
  HistoryServers() {
    for (int i = 0; i < kStoreTransactions; ++i) {
      const auto bought = store_->buyProduct(kCoins);
      if (i == 0) historyPath_ = "/inApps/v2/history/" + std::to_string(bought.id);
    }
    api_ = appstore::server::AppStoreServer::start(store_, {"127.0.0.1", 0, key_});
    fixed_.Get(kFixedPath, [](const httplib::Request&, httplib::Response& response) {
      response.set_content(kFixedBody, "application/json");
    });
    // The same bytes as the history page, fixed: what carrying the page alone costs.
    httplib::Client client(api_->url());
    const auto page = client.Get(historyPath_, {{"Authorization", bearer()}});
    if (!page || page->status != 200) throw std::runtime_error("no history page to copy");
    pageCopy_ = page->body;
    fixed_.Get(kPageCopyPath, [this](const httplib::Request&, httplib::Response& response) {
      response.set_content(pageCopy_, "application/json");
    });
    // As the App Store Server API does: without it the answer's second write waits for the
    // client's delayed acknowledgement.
    fixed_.set_tcp_nodelay(true);
    fixedPort_ = fixed_.bind_to_any_port("127.0.0.1");
    if (fixedPort_ <= 0) throw std::runtime_error("the fixed server cannot listen on loopback");
    fixedThread_ = std::thread([this] { fixed_.listen_after_bind(); });
  }

  appstore::server::InAppPurchaseKey key_ =
      appstore::server::InAppPurchaseKey::generate("KEY1", "ISSUER");
  std::shared_ptr<LocalStore> store_ = sampleStore();
  std::unique_ptr<appstore::server::AppStoreServer> api_;
  std::string historyPath_;
  std::string pageCopy_;
  httplib::Server fixed_;
  int fixedPort_ = -1;
  std::thread fixedThread_;
};

// The client both sides are called with: one keep-alive connection, TCP_NODELAY.
httplib::Client keepAliveClient(const std::string& url) {
  httplib::Client client(url);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  client.set_connection_timeout(5);
  client.set_read_timeout(10);
  return client;
}

// What the whole process (client and server threads) spent while a benchmark ran, reported
// per request beside its rate: CPU time, which the load of other processes on the machine
// moves far less than the rate, and minor page faults.
class ProcessCost {
 public:
  ProcessCost() { getrusage(RUSAGE_SELF, &start_); }
  void report(benchmark::State& state) const {
    rusage end{};
    getrusage(RUSAGE_SELF, &end);
    const auto micros = [](const timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; };
    const double cpu = micros(end.ru_utime) + micros(end.ru_stime) - micros(start_.ru_utime) -
                       micros(start_.ru_stime);
    const double requests = static_cast<double>(state.iterations());
    state.counters["cpu_us"] = cpu / requests;
    state.counters["faults"] = static_cast<double>(end.ru_minflt - start_.ru_minflt) / requests;
  }

 private:
  rusage start_{};
};

// The number of signed transactions in a history answer, or -1 when it is not one.
long pageSize(const std::string& body) {
  json::error_code ec;
  const auto answer = json::parse(body, ec);
  if (ec || !answer.is_object()) return -1;
  const auto* page = answer.get_object().if_contains("signedTransactions");
  return page && page->is_array() ? static_cast<long>(page->get_array().size()) : -1;
}

void History_Page(benchmark::State& state) {
  auto& servers = HistoryServers::shared();
  auto client = keepAliveClient(servers.apiURL());
  // Checked once outside the timing: a full page, as every timed answer is of the same size.
  const auto first = client.Get(servers.historyPath(), {{"Authorization", servers.bearer()}});
  if (!first || first->status != 200 ||
      pageSize(first->body) != static_cast<long>(kPageTransactions)) {
    state.SkipWithError("the history page is not a 200 answer with 20 transactions");
    return;
  }
  const auto expectedSize = first->body.size();
  const ProcessCost cost;
  for (auto _ : state) {
    const auto answer = client.Get(servers.historyPath(), {{"Authorization", servers.bearer()}});
    if (!answer || answer->status != 200 || answer->body.size() != expectedSize) {
      state.SkipWithError("a history request failed");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["answer_bytes"] = static_cast<double>(expectedSize);
  cost.report(state);
}

void Floor_FixedAnswer(benchmark::State& state) {
  auto& servers = HistoryServers::shared();
  auto client = keepAliveClient(servers.fixedURL());
  const std::string expected = HistoryServers::kFixedBody;
  const ProcessCost cost;
  for (auto _ : state) {
    const auto answer =
        client.Get(HistoryServers::kFixedPath, {{"Authorization", servers.bearer()}});
    if (!answer || answer->status != 200 || answer->body != expected) {
      state.SkipWithError("a fixed request failed");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
  cost.report(state);
}

// Not a floor of the figure: the plain server answering the history page's bytes, fixed. Shows
// how much of a page's time is carrying its 80 KB through the library and the client.
void Info_FixedPageSizedAnswer(benchmark::State& state) {
  auto& servers = HistoryServers::shared();
  auto client = keepAliveClient(servers.fixedURL());
  const ProcessCost cost;
  for (auto _ : state) {
    const auto answer =
        client.Get(HistoryServers::kPageCopyPath, {{"Authorization", servers.bearer()}});
    if (!answer || answer->status != 200 || answer->body.size() != servers.pageCopySize()) {
      state.SkipWithError("a fixed page request failed");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
  cost.report(state);
}

BENCHMARK(History_Page)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.3)->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(Floor_FixedAnswer)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.3)->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(Info_FixedPageSizedAnswer)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.3)->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::runBenchmarks(argc, argv, "server_bench", [](const bench::Medians& m) {
    const double delivered = bench::medianCounter(m, "Notifications_Delivered", "items_per_second");
    const double signSeconds = bench::medianNanoseconds(m, "Floor_SignNotification") * 1e-9;
    const double pages = bench::medianCounter(m, "History_Page", "items_per_second");
    const double fixed = bench::medianCounter(m, "Floor_FixedAnswer", "items_per_second");
    return std::vector<bench::Figure>{
        {"p9_history_page_ratio", pages / fixed, "x", ""},
        {"p9_history_pages_per_s", pages, "/s", ""},
        {"p10_notification_ratio", delivered * signSeconds, "x", ""},
        {"p10_notifications_per_s", delivered, "/s", ""},
    };
  });
}
