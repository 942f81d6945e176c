#include "FailingCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace failing {

namespace {

struct Order {
    std::atomic<int> spared{0};
    std::atomic<int> left{0};
    std::atomic<int> error{0};
};

std::array<Order, static_cast<std::size_t>(Call::count)> orders;

Order& orderFor(Call call) { return orders.at(static_cast<std::size_t>(call)); }

bool isToFail(Call call) {
    Order& order = orderFor(call);
    if (order.left <= 0 || order.spared-- > 0 || order.left-- <= 0) return false;
    errno = order.error;
    return true;
}

// The names that these functions have where a program has 64-bit file offsets.
#ifdef __USE_FILE_OFFSET64
constexpr const char* fstatName = "fstat64";
constexpr const char* fstatvfsName = "fstatvfs64";
constexpr const char* ftruncateName = "ftruncate64";
constexpr const char* preadName = "pread64";
#else
constexpr const char* fstatName = "fstat";
constexpr const char* fstatvfsName = "fstatvfs";
constexpr const char* ftruncateName = "ftruncate";
constexpr const char* preadName = "pread";
#endif

int errorOf(Call call) { return orderFor(call).error; }

// The function that the one of this name stands in front of.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

Calls::Calls(Call call, int error, int times, int spared) : call_(call), times_(times) {
    Order& order = orderFor(call);
    order.error = error;
    order.spared = spared;
    order.left = times;
}

Calls::~Calls() { orderFor(call_).left = 0; }

int Calls::failed() const {
    const int left = orderFor(call_).left;
    return times_ - (left > 0 ? left : 0);
}

}  // namespace failing

// syscall() without the variable arguments of its declaration: whatever is called takes six at most.
extern "C" long failingSyscall(long number, long first, long second, long third, long fourth, long fifth,
                               long sixth) noexcept asm("syscall");

using failing::Call;
using failing::errorOf;
using failing::isToFail;

extern "C" {

int fchmod(int descriptor, mode_t mode) noexcept {
    static auto* const real = failing::next<int(int, mode_t)>("fchmod");
    return isToFail(Call::fchmod) ? -1 : real(descriptor, mode);
}

int flock(int descriptor, int operation) noexcept {
    static auto* const real = failing::next<int(int, int)>("flock");
    return isToFail(Call::flock) ? -1 : real(descriptor, operation);
}

int fstat(int descriptor, struct stat* status) noexcept {
    static auto* const real = failing::next<int(int, struct stat*)>(failing::fstatName);
    return isToFail(Call::fstat) ? -1 : real(descriptor, status);
}

int fstatvfs(int descriptor, struct statvfs* status) noexcept {
    static auto* const real = failing::next<int(int, struct statvfs*)>(failing::fstatvfsName);
    return isToFail(Call::fstatvfs) ? -1 : real(descriptor, status);
}

int fsync(int descriptor) {
    static auto* const real = failing::next<int(int)>("fsync");
    return isToFail(Call::fsync) ? -1 : real(descriptor);
}

int ftruncate(int descriptor, off_t size) noexcept {
    static auto* const real = failing::next<int(int, off_t)>(failing::ftruncateName);
    return isToFail(Call::ftruncate) ? -1 : real(descriptor, size);
}

int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** found) {
    static auto* const real = failing::next<int(const char*, const char*, const addrinfo*, addrinfo**)>("getaddrinfo");
    return isToFail(Call::getaddrinfo) ? errorOf(Call::getaddrinfo) : real(host, port, hints, found);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static auto* const real = failing::next<int(pollfd*, nfds_t, int)>("poll");
    return isToFail(Call::poll) ? -1 : real(descriptors, count, timeout);
}

ssize_t pread(int descriptor, void* buffer, size_t size, off_t offset) {
    static auto* const real = failing::next<ssize_t(int, void*, size_t, off_t)>(failing::preadName);
    return isToFail(Call::pread) ? -1 : real(descriptor, buffer, size, offset);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) noexcept {
    static auto* const real =
        failing::next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return isToFail(Call::pthread_create) ? errorOf(Call::pthread_create) : real(thread, attributes, run, argument);
}

ssize_t read(int descriptor, void* buffer, size_t size) {
    static auto* const real = failing::next<ssize_t(int, void*, size_t)>("read");
    return isToFail(Call::read) ? -1 : real(descriptor, buffer, size);
}

long failingSyscall(long number, long first, long second, long third, long fourth, long fifth, long sixth) noexcept {
    using Function = long(long, long, long, long, long, long, long);
    // Not a static object: its guard may itself make a system call.
    static std::atomic<Function*> real{nullptr};
    if (real == nullptr) real = failing::next<Function>("syscall");
#ifdef SYS_pidfd_open
    if (number == SYS_pidfd_open && isToFail(Call::pidfd_open)) return -1;
#endif
    return real.load()(number, first, second, third, fourth, fifth, sixth);
}

int syncfs(int descriptor) noexcept {
    static auto* const real = failing::next<int(int)>("syncfs");
    return isToFail(Call::syncfs) ? -1 : real(descriptor);
}

int waitid(idtype_t type, id_t id, siginfo_t* information, int options) {
    static auto* const real = failing::next<int(idtype_t, id_t, siginfo_t*, int)>("waitid");
    return isToFail(Call::waitid) ? -1 : real(type, id, information, options);
}

pid_t waitpid(pid_t process, int* status, int options) {
    static auto* const real = failing::next<pid_t(pid_t, int*, int)>("waitpid");
    return isToFail(Call::waitpid) ? -1 : real(process, status, options);
}

ssize_t write(int descriptor, const void* buffer, size_t size) {
    static auto* const real = failing::next<ssize_t(int, const void*, size_t)>("write");
    return isToFail(Call::write) ? -1 : real(descriptor, buffer, size);
}
}
