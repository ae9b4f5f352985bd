#include "storekit/availability.h"

#include <cstdio>
#include <cstdlib>

#include "platform/system_version.h"

namespace storekit {

void requireSystem(int major, int minor, const char* member) {
  if (platform::SystemVersion::atLeast(major, minor)) return;
  const auto running = platform::SystemVersion::toString(platform::SystemVersion::current());
  std::fprintf(stderr, "StoreKit: %s is only available in iOS %d.%d or newer (running %s)\n", member,
               major, minor, running.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace storekit
