// What a thread that reads for itself still waits for.
#pragma once

namespace ipc {

enum class Awaited {
    response,         // its own: it reads on
    othersResponses,  // only those of other threads
    nothing,
};

}  // namespace ipc
