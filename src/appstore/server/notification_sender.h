// NotificationSender: delivers a store's outbox of Server Notifications to the store's
// notifications URL, one POST of {"signedPayload": ...} per attempt, from a thread of its own.
// A notification due on the store clock is sent; how each attempt went is recorded in the
// store (which schedules the retries); a new notification, a new URL or the clock moving wakes
// the thread. What is undelivered when the process ends stays in the outbox for the next
// launch. start() and the destructor from any one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "appstore/local_store.h"

namespace appstore::server {

struct SenderOptions {
  std::chrono::milliseconds connectTimeout{2000};
  // How long a receiver may take to answer before the attempt counts as timed out.
  std::chrono::milliseconds answerTimeout{5000};
};

// POSTs notifications to one URL after another over a connection it keeps open while the URL
// stays the same. One thread at a time.
class NotificationPoster {
 public:
  explicit NotificationPoster(SenderOptions options);
  ~NotificationPoster();
  // How the POST went, by Apple's names for send attempt results: "SUCCESS" for 200 to 206.
  std::string post(const std::string& url, const std::string& body);

 private:
  class Connection;
  SenderOptions options_;
  std::string base_;  // "scheme://host[:port]" of the connection
  std::unique_ptr<Connection> connection_;
};

class NotificationSender {
 public:
  static std::unique_ptr<NotificationSender> start(std::shared_ptr<LocalStore> store,
                                                   SenderOptions options = {});
  ~NotificationSender();

  // Waits, at most `limit`, until every notification due now has had an attempt: a process
  // about to exit lets what it just made go out.
  void drain(std::chrono::milliseconds limit);
  NotificationSender(const NotificationSender&) = delete;
  NotificationSender& operator=(const NotificationSender&) = delete;

 private:
  NotificationSender(std::shared_ptr<LocalStore> store, SenderOptions options);
  void run(std::stop_token stop);
  void wake();

  // The attempts made of `due` (all of them unless stopped) and how each went.
  std::vector<DeliveryResult> postAll(const std::string& url,
                                      const std::vector<LedgerNotification>& due,
                                      std::stop_token stop);

  std::shared_ptr<LocalStore> store_;
  std::vector<std::unique_ptr<NotificationPoster>> posters_;  // one connection each
  std::uint64_t listener_ = 0;  // of the store's changes
  // Never held while calling the store: the store calls wake() with its own lock held.
  std::mutex mutex_;
  std::condition_variable_any woken_;
  bool pending_ = true;
  std::jthread thread_;  // last: stopped before the rest goes
};

}  // namespace appstore::server
