#include "platform/task.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

namespace platform {

namespace {

using namespace std::chrono_literals;

thread_local std::stop_token currentToken;

// Threads started at once when work arrives and every thread is busy. Past this the
// supervisor adds one only when queued work has made no progress for kStallInterval, which
// keeps bursts from creating a thread per task while blocked work still never starves.
std::size_t eagerThreadLimit() {
  return std::max<std::size_t>(4, std::thread::hardware_concurrency() * 2);
}
constexpr auto kStallInterval = 2ms;
constexpr auto kIdleRetirement = 10s;

}  // namespace

struct TaskPool::State {
  std::mutex mutex;
  std::condition_variable workAvailable;
  std::condition_variable supervisorWake;
  std::deque<std::function<void()>> queue;
  std::size_t threads = 0;
  std::size_t idle = 0;
  std::uint64_t dequeued = 0;
  std::size_t eagerLimit = eagerThreadLimit();

  // Called with the mutex held.
  void startWorker(const std::shared_ptr<State>& self) {
    ++threads;
    std::thread([self] { self->work(); }).detach();
  }

  void work() {
    pthread_setname_np(pthread_self(), "platform.task");
    std::unique_lock lock(mutex);
    for (;;) {
      while (queue.empty()) {
        ++idle;
        const bool woke = workAvailable.wait_for(lock, kIdleRetirement, [&] { return !queue.empty(); });
        --idle;
        if (!woke && threads > eagerLimit / 2) {
          --threads;
          return;
        }
      }
      std::function<void()> next = std::move(queue.front());
      queue.pop_front();
      ++dequeued;
      lock.unlock();
      next();
      next = nullptr;
      lock.lock();
    }
  }

  void supervise() {
    pthread_setname_np(pthread_self(), "platform.tasksup");
    std::unique_lock lock(mutex);
    for (;;) {
      supervisorWake.wait(lock, [&] { return !queue.empty(); });
      const std::uint64_t seen = dequeued;
      // Every submission while the pool is busy notifies this condition variable; waking on
      // those would add a thread per submission instead of one per stalled interval.
      const auto deadline = std::chrono::steady_clock::now() + kStallInterval;
      while (supervisorWake.wait_until(lock, deadline) == std::cv_status::no_timeout) {
      }
      if (!queue.empty() && dequeued == seen && idle == 0) startWorker(selfReference());
    }
  }

  std::shared_ptr<State> selfReference() { return self.lock(); }
  std::weak_ptr<State> self;
};

TaskPool::TaskPool() : state_(std::make_shared<State>()) {
  state_->self = state_;
  std::thread([state = state_] { state->supervise(); }).detach();
}

TaskPool::~TaskPool() = default;

TaskPool& TaskPool::shared() {
  // Never destroyed: tasks may still be blocked in their work when the process exits.
  static auto* pool = new TaskPool();
  return *pool;
}

void TaskPool::submit(std::function<void()> work) {
  std::unique_lock lock(state_->mutex);
  state_->queue.push_back(std::move(work));
  if (state_->idle >= state_->queue.size()) {
    lock.unlock();
    state_->workAvailable.notify_one();
    return;
  }
  if (state_->threads < state_->eagerLimit) {
    state_->startWorker(state_);
    return;
  }
  lock.unlock();
  state_->workAvailable.notify_one();
  state_->supervisorWake.notify_one();
}

std::size_t TaskPool::threadCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->threads;
}

std::size_t TaskPool::idleThreadCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->idle;
}

struct Task::State {
  std::stop_source stopSource;
};

Task Task::run(std::function<void()> body) {
  auto state = std::make_shared<State>();
  TaskPool::shared().submit([token = state->stopSource.get_token(), body = std::move(body)] {
    currentToken = token;
    body();
    currentToken = std::stop_token{};
  });
  return Task{std::move(state)};
}

void Task::cancel() const {
  if (state_) state_->stopSource.request_stop();
}

bool Task::isCancelled() const { return state_ && state_->stopSource.stop_requested(); }

std::stop_token Task::currentStopToken() { return currentToken; }

}  // namespace platform
