#include "host_driver.h"

#include "bridge/apple_store_kit_service_plugin.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/json.h"
#include "storekit/device.h"
#include "appstore/local_store.h"
#include "appstore/store_controls.h"

#include <boost/json/serialize.hpp>

#include <chrono>
#include <exception>

namespace vorntesk_storekit {

namespace {

constexpr std::string_view kService = "AppleStoreKitService";
constexpr std::string_view kStartedEnvelope = R"({"success":{}})";

std::string quoted(std::string_view text) { return boost::json::serialize(boost::json::string(text)); }

vorn::tesk::TeskBridgeDispatcher& dispatcher() { return vorn::tesk::TeskBridgeDispatcher::shared(); }

// The payload text of a call line: "payload" written compactly, "payloadText" exactly, or
// "{}" when neither is given.
std::string payloadOf(const boost::json::object& line) {
  const auto* payload = line.if_contains("payload");
  const auto* text = line.if_contains("payloadText");
  if (payload != nullptr && text != nullptr) {
    throw std::invalid_argument(R"(give either "payload" or "payloadText", not both)");
  }
  if (text != nullptr) {
    if (!text->is_string()) throw std::invalid_argument(R"("payloadText" must be a string)");
    return std::string(text->get_string());
  }
  return payload != nullptr ? boost::json::serialize(*payload) : "{}";
}

}  // namespace

// Shortens every string longer than kLongString in a JSON value, for reading.
constexpr std::size_t kLongString = 72;

void shortenStrings(boost::json::value& value) {
  if (value.is_string() && value.get_string().size() > kLongString) {
    const auto& text = value.get_string();
    value = std::string(text.subview(0, 40)) + "\u2026(" + std::to_string(text.size()) + " chars)";
  } else if (value.is_array()) {
    for (auto& element : value.get_array()) shortenStrings(element);
  } else if (value.is_object()) {
    for (auto& member : value.get_object()) shortenStrings(member.value());
  }
}

std::string readable(const std::string& line) {
  auto value = platform::parseJSON(line);
  if (!value) return line;
  shortenStrings(*value);
  return boost::json::serialize(*value);
}

HostDriver::HostDriver(LineWriter& writer, Output output) : writer_(writer), output_(output) {
  listenerToken_ = dispatcher().addEventListener(
      [this](const std::string& name, const std::string& payload) {
        emit("  event  ", R"({"event":)" + quoted(name) + R"(,"payload":)" + payload + "}");
      });
}

void HostDriver::emit(std::string_view marker, const std::string& line) {
  if (output_ == Output::protocol) return writer_.write(line);
  writer_.write(std::string(marker) + readable(line));
}

HostDriver::~HostDriver() { dispatcher().removeEventListener(listenerToken_); }

void HostDriver::run(std::istream& in) {
  std::string line;
  while (std::getline(in, line)) {
    handleLine(line);
    settleEvents(std::exchange(observerJustStarted_, false) ? 1 : 0);
  }
  waitForDetachedCalls();
  settleEvents(0);
}

void HostDriver::settleEvents(std::size_t minimumListeners) {
  // Updates reach the observer on its own task. Waiting until the store has delivered them
  // puts the events a line caused right under it, and none is lost at the end of input.
  // A freshly started observer subscribes from its task, so it is waited for first.
  storekit::Device::current()->waitUntilUpdatesDelivered(std::chrono::seconds(2),
                                                            minimumListeners);
}

void HostDriver::waitForDetachedCalls() {
  std::unique_lock lock(mutex_);
  callsChanged_.wait(lock, [&] { return callsInFlight_ == 0; });
}

void HostDriver::writeError(const std::string& id, std::string_view message) {
  emit("  error  ", R"({"id":)" + id + R"(,"error":)" + quoted(message) + "}");
}

void HostDriver::handleLine(std::string_view text) {
  if (text.find_first_not_of(" \t\r") == std::string_view::npos) return;
  std::string parseError;
  const auto parsed = platform::parseJSON(text, &parseError);
  if (!parsed) return writeError("null", "the line is not valid JSON: " + parseError);
  if (!parsed->is_object()) return writeError("null", "a line must be a JSON object");
  const auto& line = parsed->get_object();
  if (const auto* note = line.if_contains("note"); note != nullptr && line.size() == 1) {
    if (output_ == Output::transcript && note->is_string()) {
      writer_.write("\n== " + std::string(note->get_string()));
    }
    return;
  }
  if (output_ == Output::transcript) writer_.write("  send   " + readable(std::string(text)));
  const auto* idValue = line.if_contains("id");
  const std::string id = idValue != nullptr ? boost::json::serialize(*idValue) : "null";

  try {
    if (const auto* method = line.if_contains("call")) {
      if (!method->is_string()) return writeError(id, R"("call" must be a method name (a string))");
      const auto* detachValue = line.if_contains("detach");
      if (detachValue != nullptr && !detachValue->is_bool()) {
        return writeError(id, R"("detach" must be true or false)");
      }
      const bool detach = detachValue != nullptr && detachValue->get_bool();
      std::string payload = payloadOf(line);
      auto answered = std::make_shared<std::string>();
      {
        std::lock_guard lock(mutex_);
        ++callsInFlight_;
      }
      dispatcher().callAsync(std::string(kService), std::string(method->get_string()),
                             std::move(payload), [this, id, answered](std::string envelope) {
                               emit("  answer ", R"({"id":)" + id + R"(,"envelope":)" + envelope + "}");
                               std::lock_guard lock(mutex_);
                               --callsInFlight_;
                               *answered = std::move(envelope);
                               callsChanged_.notify_all();
                             });
      if (!detach) {
        std::unique_lock lock(mutex_);
        callsChanged_.wait(lock, [&] { return !answered->empty(); });
        observerJustStarted_ = method->get_string() == "StartTransactionObserver" &&
                               *answered == kStartedEnvelope;
      }
      return;
    }
    if (const auto* method = line.if_contains("callSync")) {
      if (!method->is_string()) return writeError(id, R"("callSync" must be a method name (a string))");
      const auto plugin = dispatcher().plugin(std::string(kService));
      if (!plugin) return writeError(id, "the service is not registered");
      const std::string envelope = plugin->callSync(std::string(method->get_string()), payloadOf(line));
      emit("  answer ", R"({"id":)" + id + R"(,"envelope":)" + envelope + "}");
      return;
    }
    if (const auto* callbackId = line.if_contains("cancel")) {
      if (!callbackId->is_int64()) return writeError(id, R"("cancel" must be a callback identifier (an integer))");
      const auto plugin = dispatcher().plugin(std::string(kService));
      if (!plugin) return writeError(id, "the service is not registered");
      plugin->cancel(callbackId->get_int64());
      emit("  ok     ", R"({"id":)" + id + R"(,"ok":true})");
      return;
    }
    if (const auto* control = line.if_contains("store")) {
      if (!control->is_string()) return writeError(id, R"("store" must be a control name (a string))");
      const auto result =
          appstore::runStoreControl(*appstore::LocalStore::shared(), control->get_string(), line);
      std::string answer = R"({"id":)" + id + R"(,"ok":true)";
      for (const auto& member : result) {
        answer += ',' + quoted(member.key()) + ':' + boost::json::serialize(member.value());
      }
      emit("  ok     ", answer + "}");
      return;
    }
    writeError(id, R"(a line needs one of "call", "callSync", "cancel" or "store")");
  } catch (const std::exception& error) {
    writeError(id, error.what());
  }
}

}  // namespace vorntesk_storekit
