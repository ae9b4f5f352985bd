// Unstructured tasks on one shared, elastic thread pool.
//
// Work may block (a blocking bridge waits on a semaphore for another task), so the pool
// never lets queued work starve: while every thread is busy it adds threads, and threads
// that stay idle retire again. Cancellation is cooperative through std::stop_token; code
// running inside a task reads its own token with `Task::currentStopToken()`, which is how
// blocking sequences notice that their task was cancelled.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <exception>
#include <stop_token>

namespace platform {

class Task {
 public:
  Task() = default;  // an empty handle

  // Starts `body` on the shared pool. The handle may be dropped: the task runs to its end.
  static Task run(std::function<void()> body);

  // Requests cancellation; the body sees it through its stop token.
  void cancel() const;
  bool isCancelled() const;
  explicit operator bool() const { return state_ != nullptr; }

  // The stop token of the task running on this thread; outside any task, a token that is
  // never stopped.
  static std::stop_token currentStopToken();
  static bool currentIsCancelled() { return currentStopToken().stop_requested(); }

 private:
  struct State;
  explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

// The pool behind Task. Exposed for tests and measurements.
class TaskPool {
 public:
  static TaskPool& shared();

  void submit(std::function<void()> work);

  std::size_t threadCount() const;
  std::size_t idleThreadCount() const;

  ~TaskPool();
  TaskPool(const TaskPool&) = delete;
  TaskPool& operator=(const TaskPool&) = delete;

 private:
  TaskPool();
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace platform

namespace platform {

// Thrown by blocking operations that give up because their task was cancelled.
struct CancellationError : std::exception {
  const char* what() const noexcept override {
    return "The operation couldn\xE2\x80\x99t be completed. (CancellationError error 1.)";
  }
};

}  // namespace platform
