// The host's message bridge: plug-ins registered by service name, calls routed to them,
// and events pushed from plug-ins to every listener. One per process (`shared()`).
//
// Thread-safe throughout. Listeners run on the thread that emits the event (any thread),
// possibly on several threads at once; a listener removed while an event is being
// delivered may still receive that event.
#pragma once

#include "host/tesk_plugin.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vorn::tesk {

class TeskBridgeDispatcher {
 public:
  using EventListener = std::function<void(const std::string& name, const std::string& payload)>;
  using ListenerToken = std::uint64_t;

  static TeskBridgeDispatcher& shared();

  // Keeps the plug-in under `name`; a later registration under the same name replaces it.
  void registerPlugin(const std::string& name, std::shared_ptr<TeskPlugin> plugin);
  std::shared_ptr<TeskPlugin> plugin(const std::string& name) const;
  // Drops every registration (for hosts that reset between sessions, and for tests).
  void removeAllPlugins();

  ListenerToken addEventListener(EventListener listener);
  void removeEventListener(ListenerToken token);
  void emitEvent(const std::string& name, const std::string& payload);

  // Routes a call to the plug-in registered under `service`; an unknown service is
  // answered with an "UNIMPLEMENTED" error envelope on the caller's thread.
  void callAsync(const std::string& service, std::string method, std::string payload,
                 CompletionHandler onComplete);

  TeskBridgeDispatcher() = default;
  TeskBridgeDispatcher(const TeskBridgeDispatcher&) = delete;
  TeskBridgeDispatcher& operator=(const TeskBridgeDispatcher&) = delete;

 private:
  using Listeners = std::vector<std::pair<ListenerToken, std::shared_ptr<const EventListener>>>;

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<TeskPlugin>> plugins_;
  // Replaced, never changed in place, so an emitter can deliver from its own snapshot
  // without holding the lock.
  std::shared_ptr<const Listeners> listeners_ = std::make_shared<const Listeners>();
  ListenerToken nextToken_ = 1;
};

}  // namespace vorn::tesk
