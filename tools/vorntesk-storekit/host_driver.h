// The driver's protocol: JSON Lines in, JSON Lines out.
//   in   {"id":ID,"call":METHOD,"payload":VALUE}   (or "payloadText":TEXT; "detach":true)
//        {"id":ID,"callSync":METHOD,...}           {"id":ID,"cancel":N}
//        {"id":ID,"store":CONTROL,...arguments}            {"note":TEXT} (a comment)
//   out  {"id":ID,"envelope":ENVELOPE}  {"id":ID,"ok":true,...}  {"id":ID,"error":MESSAGE}
//        {"event":NAME,"payload":PAYLOAD}
// Envelopes and event payloads are inserted verbatim. A call waits for its answer before
// the next line is read unless it is detached; the events a line causes are written before
// the next line is read; at the end of input the driver waits for the detached calls. Lines are read on one thread; answers and events are written from any
// thread through one LineWriter.
#pragma once

#include "line_writer.h"

#include <condition_variable>
#include <cstdint>
#include <istream>
#include <mutex>
#include <string>
#include <string_view>

namespace vorntesk_storekit {

class HostDriver {
 public:
  // In transcript mode the driver writes for people instead of programs: each request is
  // echoed before its answer, notes become headings, events are marked, and long strings
  // (signed transactions) are shortened.
  enum class Output { protocol, transcript };

  HostDriver(LineWriter& writer, Output output = Output::protocol);
  ~HostDriver();
  HostDriver(const HostDriver&) = delete;
  HostDriver& operator=(const HostDriver&) = delete;

  // Handles every line of `in`, then waits for the detached calls.
  void run(std::istream& in);
  void handleLine(std::string_view line);
  void waitForDetachedCalls();

 private:
  void settleEvents(std::size_t minimumListeners);
  void writeError(const std::string& id, std::string_view message);
  // Every line out goes through here; `marker` says what it is for the transcript.
  void emit(std::string_view marker, const std::string& line);

  LineWriter& writer_;
  Output output_;
  std::uint64_t listenerToken_;
  std::mutex mutex_;
  std::condition_variable callsChanged_;
  std::size_t callsInFlight_ = 0;
  bool observerJustStarted_ = false;  // reading thread only
};

}  // namespace vorntesk_storekit
