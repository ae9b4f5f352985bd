// The interface a plug-in offers the host's dispatcher. `callAsync` must return at once and
// call `onComplete` exactly once, later, from any thread; `callSync` answers on the
// caller's thread; `cancel` may be called from any thread at any time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace vorn::tesk {

using CompletionHandler = std::function<void(std::string envelope)>;

class TeskPlugin {
 public:
  virtual ~TeskPlugin() = default;

  virtual std::string callSync(const std::string& method, const std::string& payload) = 0;
  virtual void callAsync(std::string method, std::string payload, CompletionHandler onComplete) = 0;
  virtual void cancel(std::int64_t callbackId) { (void)callbackId; }
};

}  // namespace vorn::tesk
