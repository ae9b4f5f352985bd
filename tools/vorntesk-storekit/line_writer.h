// Writes whole lines to one stream from any thread; a line is never split or interleaved
// with another, and each is flushed as soon as it is written.
#pragma once

#include <mutex>
#include <ostream>
#include <string_view>

namespace vorntesk_storekit {

class LineWriter {
 public:
  explicit LineWriter(std::ostream& out) : out_(out) {}

  void write(std::string_view line) {
    std::lock_guard lock(mutex_);
    out_ << line << '\n';
    out_.flush();
  }

 private:
  std::mutex mutex_;
  std::ostream& out_;
};

}  // namespace vorntesk_storekit
