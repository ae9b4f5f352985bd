// The unified log: records carry a subsystem and a category and go to syslog (journald
// reads it) and, when one is installed, to a process-wide sink that tests use to capture
// them. Any thread may log.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace platform {

enum class LogLevel { debug, info, notice, error, fault };

struct LogRecord {
  std::string subsystem;
  std::string category;
  LogLevel level = LogLevel::info;
  std::string message;
};

class Logger {
 public:
  using Sink = std::function<void(const LogRecord&)>;

  Logger(std::string subsystem, std::string category);

  void log(LogLevel level, std::string_view message) const;
  void error(std::string_view message) const { log(LogLevel::error, message); }

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

  // Installs `sink` for every logger of the process and returns the one it replaces.
  // An empty sink removes it.
  static Sink setSink(Sink sink);

 private:
  std::string subsystem_;
  std::string category_;
};

}  // namespace platform
