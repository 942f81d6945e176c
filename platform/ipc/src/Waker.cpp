#include "Waker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Mqtt.h"
#include "ipc/IPCException.h"

namespace ipc {

Waker::Waker() : event_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (event_.get() < 0) throw IPCException("Cannot create an event descriptor: " + systemText(errno));
}

void Waker::wake() const {
    const std::uint64_t one = 1;
    // A full counter means that a wake-up is pending already.
    [[maybe_unused]] const ssize_t written = ::write(event_.get(), &one, sizeof one);
}

void Waker::drain() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = ::read(event_.get(), &count, sizeof count);
}

}  // namespace ipc
