#include "platform/system_version.h"

#include <atomic>
#include <charconv>
#include <cstdint>

namespace platform {

namespace {

// Both numbers share one atomic, major in the high half, so a reader never sees the major
// of one version with the minor of another, and no value spills into its neighbour.
constexpr std::uint64_t pack(OperatingSystemVersion version) {
  return std::uint64_t{static_cast<std::uint32_t>(version.major)} << 32 |
         static_cast<std::uint32_t>(version.minor);
}

std::atomic<std::uint64_t> packedVersion{pack(SystemVersion::kDefault)};

}  // namespace

OperatingSystemVersion SystemVersion::current() {
  const std::uint64_t packed = packedVersion.load(std::memory_order_relaxed);
  return {static_cast<int>(static_cast<std::uint32_t>(packed >> 32)),
          static_cast<int>(static_cast<std::uint32_t>(packed))};
}

void SystemVersion::set(OperatingSystemVersion version) {
  packedVersion.store(pack(version), std::memory_order_relaxed);
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
