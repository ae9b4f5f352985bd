// Shared by the stress tests: iteration counts that sanitizer builds (which run many times
// slower) scale down where the full count would take minutes, and a counter that a test
// waits on until every expected answer has come.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace stress {

// g++ marks sanitizer builds with macros, clang answers __has_feature.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VORNTESK_STRESS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VORNTESK_STRESS_SANITIZED 1
#endif
#endif

// `count` in the plain builds, a tenth of it under a sanitizer.
#ifdef VORNTESK_STRESS_SANITIZED
constexpr std::size_t scaled(std::size_t count) { return count / 10; }
#else
constexpr std::size_t scaled(std::size_t count) { return count; }
#endif

// Counts arrivals from any thread until the number a test expects; the test waits for it.
class Arrivals {
 public:
  explicit Arrivals(std::size_t expected) : expected_(expected) {}

  void arrive() {
    std::lock_guard lock(mutex_);
    if (++count_ == expected_) changed_.notify_all();
  }
  // True when every expected arrival came within a generous wait (a lost answer fails the
  // test instead of hanging it).
  bool waitForAll() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(5), [&] { return count_ >= expected_; });
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  const std::size_t expected_;
  std::size_t count_ = 0;
};

}  // namespace stress
