#include "platform/serial_queue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace platform {

struct SerialQueue::State {
  std::string label;
  QualityOfService qualityOfService;
  std::mutex mutex;
  std::condition_variable workArrived;
  std::deque<std::function<void()>> work;
  bool closing = false;

  // The worker owns a reference to the state, so a queue whose owner lets go from inside
  // its own work can finish without anyone joining it.
  static void run(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), state->label.substr(0, 15).c_str());
    std::unique_lock lock(state->mutex);
    for (;;) {
      state->workArrived.wait(lock, [&] { return !state->work.empty() || state->closing; });
      if (state->work.empty()) return;
      std::function<void()> next = std::move(state->work.front());
      state->work.pop_front();
      lock.unlock();
      next();
      next = nullptr;  // release what the work captured before taking the lock again
      lock.lock();
    }
  }
};

namespace {
thread_local const void* currentQueueState = nullptr;
}

SerialQueue::SerialQueue(std::string label, QualityOfService qualityOfService)
    : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
  state_->qualityOfService = qualityOfService;
  std::thread worker([state = state_] {
    currentQueueState = state.get();
    State::run(state);
  });
  worker.detach();
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->closing = true;
  }
  state_->workArrived.notify_one();
}

void SerialQueue::async(std::function<void()> work) {
  {
    std::lock_guard lock(state_->mutex);
    state_->work.push_back(std::move(work));
  }
  state_->workArrived.notify_one();
}

const std::string& SerialQueue::label() const { return state_->label; }

QualityOfService SerialQueue::qualityOfService() const { return state_->qualityOfService; }

bool SerialQueue::isCurrent() const { return currentQueueState == state_.get(); }

}  // namespace platform
