// P10, notification delivery: the store's outbox delivered by the notification sender to a
// receiver on loopback that answers 200 (httplib, in this process). Timed: from the sender's
// start until the receiver has the last of a batch of notifications the store made beforehand
// (each attempt is recorded in the ledger, as in use). Beside it the cryptography each
// notification cannot avoid: signing one notification payload. Figure: notifications
// delivered per second x the time to sign one, i.e. delivery throughput as a share of the
// signing throughput; 1 would be delivery as fast as the store can sign.
#include "bench_support.h"

#include "appstore/local_store.h"
#include "appstore/server/notification_sender.h"

#include <httplib.h>

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

}  // namespace

int main(int argc, char** argv) {
  return bench::runBenchmarks(argc, argv, "server_bench", [](const bench::Medians& m) {
    const double delivered = bench::medianCounter(m, "Notifications_Delivered", "items_per_second");
    const double signSeconds = bench::medianNanoseconds(m, "Floor_SignNotification") * 1e-9;
    return std::vector<bench::Figure>{
        {"p10_notification_ratio", delivered * signSeconds, "x", ""},
        {"p10_notifications_per_s", delivered, "/s", ""},
    };
  });
}
