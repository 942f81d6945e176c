// Detects lost commits: SQLite reads its write-ahead log up to the first corrupt frame and silently drops the rest.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// The number of commits lost at and behind a corrupt frame. After a power cut these can be the commits of the last
/// second, which were not synced; otherwise the disk is faulty. 0 if the log is intact or missing, or if only its last
/// frames are corrupt, as after a kill. Does not write.
std::size_t lostCommits(const std::string& log);

}  // namespace propertyservice
