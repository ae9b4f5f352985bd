#include "platform/system_version.h"

#include <atomic>
#include <charconv>

namespace platform {

namespace {

// Packed as major * 1000 + minor so that one atomic holds the whole version.
std::atomic<int> packedVersion{SystemVersion::kDefault.major * 1000 + SystemVersion::kDefault.minor};

}  // namespace

OperatingSystemVersion SystemVersion::current() {
  const int packed = packedVersion.load(std::memory_order_relaxed);
  return {packed / 1000, packed % 1000};
}

void SystemVersion::set(OperatingSystemVersion version) {
  packedVersion.store(version.major * 1000 + version.minor, std::memory_order_relaxed);
}

bool SystemVersion::atLeast(int major, int minor) {
  return current() >= OperatingSystemVersion{major, minor};
}

std::optional<OperatingSystemVersion> SystemVersion::parse(std::string_view text) {
  OperatingSystemVersion version;
  const char* end = text.data() + text.size();
  auto [next, ec] = std::from_chars(text.data(), end, version.major);
  if (ec != std::errc{} || version.major < 0 || version.major > 999) return std::nullopt;
  if (next != end) {
    if (*next != '.') return std::nullopt;
    auto [last, ec2] = std::from_chars(next + 1, end, version.minor);
    if (ec2 != std::errc{} || last != end || version.minor < 0 || version.minor > 999) {
      return std::nullopt;
    }
  }
  return version;
}

std::string SystemVersion::toString(OperatingSystemVersion version) {
  return std::to_string(version.major) + "." + std::to_string(version.minor);
}

}  // namespace platform
