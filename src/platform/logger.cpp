#include "platform/logger.h"

#include <syslog.h>

#include <memory>
#include <mutex>

namespace platform {

namespace {

// Never destroyed: tasks may still log while the process exits.
struct SinkSlot {
  std::mutex mutex;
  std::shared_ptr<const Logger::Sink> sink;
};
SinkSlot& sinkSlot() {
  static auto* slot = new SinkSlot();
  return *slot;
}

int syslogPriority(LogLevel level) {
  switch (level) {
    case LogLevel::debug: return LOG_DEBUG;
    case LogLevel::info: return LOG_INFO;
    case LogLevel::notice: return LOG_NOTICE;
    case LogLevel::error: return LOG_ERR;
    case LogLevel::fault: return LOG_CRIT;
  }
  return LOG_INFO;
}

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::log(LogLevel level, std::string_view message) const {
  ::syslog(syslogPriority(level), "%s [%s] %.*s", subsystem_.c_str(), category_.c_str(),
           static_cast<int>(message.size()), message.data());
  std::shared_ptr<const Sink> sink;
  {
    auto& slot = sinkSlot();
    std::lock_guard lock(slot.mutex);
    sink = slot.sink;
  }
  if (sink && *sink) (*sink)(LogRecord{subsystem_, category_, level, std::string(message)});
}

Logger::Sink Logger::setSink(Sink sink) {
  auto replacement = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  auto& slot = sinkSlot();
  std::lock_guard lock(slot.mutex);
  Sink previous = slot.sink ? *slot.sink : Sink{};
  slot.sink = std::move(replacement);
  return previous;
}

}  // namespace platform
