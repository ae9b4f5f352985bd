#include "appstore/server/notification_sender.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include <httplib.h>

namespace appstore::server {
namespace {

using std::chrono::milliseconds;

// Notifications read from the outbox at a time, and sent over this many connections at once.
constexpr std::size_t kBatch = 64;
constexpr std::size_t kConnections = 4;
// The longest the thread sleeps without looking at the outbox again: the store clock may be
// moved by another process's hand (a relaunch) without a wake.
constexpr milliseconds kLongestSleep{60'000};

}  // namespace

class NotificationPoster::Connection {
 public:
  Connection(const std::string& base, const SenderOptions& options) : client(base) {
    const auto seconds = [](milliseconds value) { return value.count() / 1000; };
    const auto micros = [](milliseconds value) { return (value.count() % 1000) * 1000; };
    client.set_connection_timeout(seconds(options.connectTimeout), micros(options.connectTimeout));
    client.set_read_timeout(seconds(options.answerTimeout), micros(options.answerTimeout));
    client.set_write_timeout(seconds(options.answerTimeout), micros(options.answerTimeout));
    client.set_keep_alive(true);
    // Each notification is one small request: waiting to coalesce writes only adds latency.
    client.set_tcp_nodelay(true);
  }
  httplib::Client client;
};

NotificationPoster::NotificationPoster(SenderOptions options) : options_(options) {}
NotificationPoster::~NotificationPoster() = default;

std::string NotificationPoster::post(const std::string& url, const std::string& body) {
  // "scheme://host[:port]" is the connection's; the rest is the path posted to.
  const auto scheme = url.find("://");
  const auto pathStart = scheme == std::string::npos ? std::string::npos : url.find('/', scheme + 3);
  const std::string base = pathStart == std::string::npos ? url : url.substr(0, pathStart);
  const std::string path = pathStart == std::string::npos ? "/" : url.substr(pathStart);
  try {
    if (!connection_ || base != base_) {
      connection_ = std::make_unique<Connection>(base, options_);
      base_ = base;
    }
    if (!connection_->client.is_valid()) return "OTHER";
    const auto started = std::chrono::steady_clock::now();
    const auto result = connection_->client.Post(path, body, "application/json");
    if (result) {
      return result->status >= 200 && result->status <= 206 ? "SUCCESS"
                                                             : "UNSUCCESSFUL_HTTP_RESPONSE_CODE";
    }
    // A connection that failed is not used again.
    connection_.reset();
    switch (result.error()) {
      case httplib::Error::Connection:
        return "NO_RESPONSE";  // nothing accepted the connection
      case httplib::Error::ConnectionTimeout:
        return "TIMED_OUT";
      case httplib::Error::Read:
        // Either no answer within the time allowed, or the connection closed before one.
        return std::chrono::steady_clock::now() - started >= options_.answerTimeout
                   ? "TIMED_OUT"
                   : "PREMATURE_CLOSE";
      case httplib::Error::Write:
        return "SOCKET_ISSUE";
      case httplib::Error::ExceedRedirectCount:
        return "CIRCULAR_REDIRECT";
      case httplib::Error::SSLConnection:
      case httplib::Error::SSLLoadingCerts:
      case httplib::Error::SSLServerVerification:
        return "TLS_ISSUE";
      default:
        return "OTHER";
    }
  } catch (const std::exception&) {
    connection_.reset();
    return "OTHER";
  }
}

std::unique_ptr<NotificationSender> NotificationSender::start(std::shared_ptr<LocalStore> store,
                                                              SenderOptions options) {
  std::unique_ptr<NotificationSender> sender(new NotificationSender(std::move(store), options));
  sender->listener_ = sender->store_->addChangeListener([raw = sender.get()] { raw->wake(); });
  sender->thread_ = std::jthread([raw = sender.get()](std::stop_token stop) { raw->run(stop); });
  return sender;
}

NotificationSender::NotificationSender(std::shared_ptr<LocalStore> store, SenderOptions options)
    : store_(std::move(store)) {
  for (std::size_t k = 0; k < kConnections; ++k) {
    posters_.push_back(std::make_unique<NotificationPoster>(options));
  }
}

NotificationSender::~NotificationSender() {
  store_->removeChangeListener(listener_);
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
}

void NotificationSender::drain(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  try {
    while (!store_->notificationsURL().empty() && !store_->dueNotifications(1).empty() &&
           std::chrono::steady_clock::now() < deadline) {
      wake();
      std::this_thread::sleep_for(milliseconds(5));
    }
  } catch (const std::exception&) {
    // An outbox that cannot be read has nothing more to send now.
  }
}

void NotificationSender::wake() {
  {
    std::lock_guard lock(mutex_);
    pending_ = true;
  }
  woken_.notify_one();
}

std::vector<DeliveryResult> NotificationSender::postAll(const std::string& url,
                                                       const std::vector<LedgerNotification>& due,
                                                       std::stop_token stop) {
  std::vector<DeliveryResult> results(due.size());
  std::atomic<std::size_t> next{0};
  // Each connection takes the next notification until none is left: a slow receiver holds up
  // one connection, not the batch.
  const auto work = [&](NotificationPoster& poster) {
    for (auto i = next++; i < due.size() && !stop.stop_requested(); i = next++) {
      // A compact JWS is base64url and dots: nothing in it needs escaping in JSON.
      results[i] = {due[i].sequence, due[i].attempts.size(),
                    poster.post(url, "{\"signedPayload\":\"" + due[i].signedPayload + "\"}")};
    }
  };
  {
    std::vector<std::jthread> helpers;
    const auto connections = std::min(posters_.size(), due.size());
    for (std::size_t k = 1; k < connections; ++k) helpers.emplace_back([&, k] { work(*posters_[k]); });
    if (connections > 0) work(*posters_[0]);
  }
  // Those a stop cut short are left due.
  std::erase_if(results, [](const DeliveryResult& attempt) { return attempt.result.empty(); });
  return results;
}

void NotificationSender::run(std::stop_token stop) {
  while (!stop.stop_requested()) {
    {
      std::lock_guard lock(mutex_);
      pending_ = false;
    }
    milliseconds sleep = kLongestSleep;
    try {
      const auto url = store_->notificationsURL();
      if (!url.empty()) {
        const auto due = store_->dueNotifications(kBatch);
        // One commit for the batch; attempts cut short by a stop are made again next launch.
        store_->recordSendAttempts(postAll(url, due, stop));
        if (stop.stop_requested()) return;
        if (due.size() == kBatch) continue;  // more may be waiting
        if (const auto next = store_->nextNotificationDue()) {
          const auto wait = std::chrono::duration_cast<milliseconds>(*next - store_->now());
          sleep = std::clamp(wait, milliseconds(0), kLongestSleep);
          if (!due.empty() && sleep == milliseconds(0)) continue;
        }
        sleep = std::max(sleep, milliseconds(10));
      }
    } catch (const std::exception& error) {
      // The ledger could not be read or the attempt not recorded: tried again later, as
      // nothing is lost from the outbox.
      std::fprintf(stderr, "App Store notifications: %s\n", error.what());
      sleep = milliseconds(1000);
    }
    std::unique_lock lock(mutex_);
    woken_.wait_for(lock, stop, sleep, [&] { return pending_; });
  }
}

}  // namespace appstore::server
