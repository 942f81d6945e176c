// Sanitizer suppressions for libmosquitto. When the broker closes a connection with a DISCONNECT packet, version 2.0
// unlocks a mutex that it has not locked, and leaks the packet that it was writing.
#pragma once

namespace bustest {

#ifdef __SANITIZE_ADDRESS__
constexpr bool findsLostPackets = true;
#else
constexpr bool findsLostPackets = false;
#endif

}  // namespace bustest
