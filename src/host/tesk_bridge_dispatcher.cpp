#include "host/tesk_bridge_dispatcher.h"

#include "host/vorn_error.h"

#include <boost/json/serialize.hpp>

namespace vorn::tesk {

TeskBridgeDispatcher& TeskBridgeDispatcher::shared() {
  // Never destroyed: plug-ins and their queues may still be running when the process exits.
  static auto* dispatcher = new TeskBridgeDispatcher();
  return *dispatcher;
}

void TeskBridgeDispatcher::registerPlugin(const std::string& name,
                                          std::shared_ptr<TeskPlugin> plugin) {
  std::shared_ptr<TeskPlugin> replaced;
  std::lock_guard lock(mutex_);
  // The replaced plug-in is released after the lock, in case its destructor calls back.
  replaced = std::exchange(plugins_[name], std::move(plugin));
}

std::shared_ptr<TeskPlugin> TeskBridgeDispatcher::plugin(const std::string& name) const {
  std::lock_guard lock(mutex_);
  const auto found = plugins_.find(name);
  return found == plugins_.end() ? nullptr : found->second;
}

void TeskBridgeDispatcher::removeAllPlugins() {
  std::unordered_map<std::string, std::shared_ptr<TeskPlugin>> removed;
  std::lock_guard lock(mutex_);
  removed.swap(plugins_);
}

TeskBridgeDispatcher::ListenerToken TeskBridgeDispatcher::addEventListener(
    EventListener listener) {
  auto shared = std::make_shared<const EventListener>(std::move(listener));
  std::lock_guard lock(mutex_);
  auto updated = std::make_shared<Listeners>(*listeners_);
  const ListenerToken token = nextToken_++;
  updated->emplace_back(token, std::move(shared));
  listeners_ = std::move(updated);
  return token;
}

void TeskBridgeDispatcher::removeEventListener(ListenerToken token) {
  std::lock_guard lock(mutex_);
  auto updated = std::make_shared<Listeners>(*listeners_);
  std::erase_if(*updated, [token](const auto& entry) { return entry.first == token; });
  listeners_ = std::move(updated);
}

void TeskBridgeDispatcher::emitEvent(const std::string& name, const std::string& payload) {
  std::shared_ptr<const Listeners> snapshot;
  {
    std::lock_guard lock(mutex_);
    snapshot = listeners_;
  }
  for (const auto& entry : *snapshot) (*entry.second)(name, payload);
}

void TeskBridgeDispatcher::callAsync(const std::string& service, std::string method,
                                     std::string payload, CompletionHandler onComplete) {
  if (auto target = plugin(service)) {
    target->callAsync(std::move(method), std::move(payload), std::move(onComplete));
    return;
  }
  boost::json::object error{{"code", wireString(VornErrorCode::unimplemented)},
                            {"message", "Unknown service: " + service}};
  onComplete(boost::json::serialize(boost::json::object{{"error", std::move(error)}}));
}

}  // namespace vorn::tesk
