// Collects the answers of asynchronous calls: the text, and whether the completion ran on
// the expected queue. Waits without timing assertions.
#pragma once

#include "platform/serial_queue.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class CompletionLog {
 public:
  struct Entry {
    int callIndex;
    std::string envelope;
    bool onQueue;
  };

  // A completion handler for call number `callIndex`.
  auto handler(int callIndex, const platform::SerialQueue* queue = nullptr) {
    return [this, callIndex, queue](std::string envelope) {
      const bool onQueue = queue != nullptr && queue->isCurrent();
      std::lock_guard lock(mutex_);
      entries_.push_back({callIndex, std::move(envelope), onQueue});
      changed_.notify_all();
    };
  }

  // Waits (generously) until `count` answers have arrived; returns them in arrival order.
  std::vector<Entry> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(60), [&] { return entries_.size() >= count; });
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;
};

}  // namespace testsupport
