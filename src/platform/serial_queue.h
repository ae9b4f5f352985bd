// A labelled serial work queue: one worker thread runs submitted work one item at a time
// in submission order. `async` may be called from any thread, including from work running
// on the queue. Destruction does not wait: the worker runs the work already queued and
// then ends, so the last owner may even let go from inside the queue's own work.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace platform {

// Scheduling class requested for the queue's thread (kept for introspection; Linux
// threads of one process share a class here).
enum class QualityOfService { background, utility, defaultQoS, userInitiated, userInteractive };

class SerialQueue {
 public:
  explicit SerialQueue(std::string label,
                       QualityOfService qualityOfService = QualityOfService::defaultQoS);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void async(std::function<void()> work);

  const std::string& label() const;
  QualityOfService qualityOfService() const;

  // True when called from work running on this queue.
  bool isCurrent() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace platform
