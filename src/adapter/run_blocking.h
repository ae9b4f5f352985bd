// The blocking bridge: runs asynchronous store work as a task on the shared pool while the
// calling thread waits, without time-out, for its result. The result is handed over through
// a locked box; the task stores it, releases the lock, and only then signals once.
// Any thread may call runBlocking except a thread the work itself needs.
#pragma once

#include "platform/task.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>

namespace VornTeskPaymentsAddonApple {

template <class R>
class ResultBox {
 public:
  void store(R value) {
    std::lock_guard lock(lock_);
    value_ = std::move(value);
  }
  std::optional<R> take() {
    std::lock_guard lock(lock_);
    return std::move(value_);
  }

 private:
  std::mutex lock_;
  std::optional<R> value_;
};

// `operation` must not throw: every failure belongs in its result.
template <class R>
R runBlocking(std::function<R()> operation) {
  // Both are shared with the task: the waiter may return and unwind while the task is still
  // leaving release().
  auto semaphore = std::make_shared<std::counting_semaphore<>>(0);
  auto box = std::make_shared<ResultBox<R>>();
  platform::Task::run([semaphore, box, operation = std::move(operation)] {
    box->store(operation());
    semaphore->release();
  });
  semaphore->acquire();
  std::optional<R> value = box->take();
  if (!value) {
    std::fputs("Fatal error: runBlocking finished without a result\n", stderr);
    std::abort();
  }
  return std::move(*value);
}

}  // namespace VornTeskPaymentsAddonApple
