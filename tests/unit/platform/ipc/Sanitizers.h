// What the sanitizers are told about libmosquitto. When the broker ends a connection with a DISCONNECT packet, version
// 2.0 unlocks a mutex that it has not locked, and forgets the packet that it had begun to write: one each time.
#pragma once

namespace bustest {

#ifdef __SANITIZE_ADDRESS__
constexpr bool findsLostPackets = true;
#else
constexpr bool findsLostPackets = false;
#endif

}  // namespace bustest
