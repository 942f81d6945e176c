// Runs independent work on all processors.
#pragma once

#include <cstddef>
#include <functional>

namespace pack {

/// Calls `work(index)` for each index below `count`, on several threads, and returns when all are done. The caller's
/// thread takes part, and calls `progress(done)` there now and then and at the end. The first exception ends the work
/// and is thrown to the caller.
void forEach(std::size_t count, const std::function<void(std::size_t)>& work,
             const std::function<void(std::size_t)>& progress);

}  // namespace pack
