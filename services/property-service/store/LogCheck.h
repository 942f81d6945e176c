// What SQLite passes over in silence: it reads its write-ahead log up to the first frame that is not as it was written,
// and forgets the rest.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// How many changes (committed transactions) a damaged place in the log takes along, with others behind it. After a
/// power cut that can be those of the last second, which were not synced; otherwise the disk is bad. 0 for a log that
/// is whole or not there, and for one of which only the end is damaged, as a process that is killed leaves it. Reads
/// only.
std::size_t changesBehindDamage(const std::string& log);

}  // namespace propertyservice
