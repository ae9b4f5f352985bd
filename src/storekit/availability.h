// Availability of members that newer systems added. StoreKit's newer members simply do not
// exist on an older system; here they exist in the code but end the process when read on an
// older simulated platform::SystemVersion, so callers must guard them with a version check
// exactly as they would on the device. Any thread.
#pragma once

namespace storekit {

// Aborts with a message naming `member` unless the simulated system is at least
// major.minor.
void requireSystem(int major, int minor, const char* member);

}  // namespace storekit
