// The operating-system version that availability checks consult. The process runs on a
// simulated version (26.0 unless set) so that code paths for older systems can be
// exercised: tests and the host driver change it. Safe to read and set from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct OperatingSystemVersion {
  int major = 0;
  int minor = 0;
  friend auto operator<=>(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};

class SystemVersion {
 public:
  static constexpr OperatingSystemVersion kDefault{26, 0};

  static OperatingSystemVersion current();
  static void set(OperatingSystemVersion version);
  static bool atLeast(int major, int minor = 0);

  // "17", "17.2"; nothing for anything else.
  static std::optional<OperatingSystemVersion> parse(std::string_view text);
  static std::string toString(OperatingSystemVersion version);
};

}  // namespace platform
