// Runs independent work on all processors.
#pragma once

#include <cstddef>
#include <functional>

namespace pack {

/// What the work waits for: the processors, or the disk, on which more threads than processors make progress.
enum class Bound { processors, disk };

/// Calls `work(index)` for each index below `count`, on at most eight threads, and returns when all are done. The
/// caller's thread takes part, and calls `progress(done)`, unless it is null, there now and then and at the end. The
/// first exception ends the work and is thrown to the caller.
void forEach(std::size_t count, const std::function<void(std::size_t)>& work,
             const std::function<void(std::size_t)>& progress, Bound bound = Bound::processors);

}  // namespace pack
