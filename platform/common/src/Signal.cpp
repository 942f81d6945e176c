#include "common/Signal.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <system_error>
#include <thread>

#include "common/ThreadSafety.h"

namespace common::signal {

namespace {

using CustomHandler = void (*)(int);

class ReceiverThread final : public SignalReceiver {
 public:
    ReceiverThread() {
        ::signal(SIGPIPE, SIG_IGN);
        // A parent may have left it ignored: the kernel would then drop the exit status of our children.
        ::signal(SIGCHLD, SIG_DFL);
        // Where a thread has not blocked it, each child's end wakes that thread for nothing: the process waits
        // otherwise.
        block(SIGCHLD);
        // The thread's own wake-up call: blocked everywhere, taken by sigwait only.
        block(wakeUp());
    }

    ReceiverThread(const ReceiverThread&) = delete;
    ReceiverThread& operator=(const ReceiverThread&) = delete;

    ~ReceiverThread() override;

    void add(int signal, CustomHandler handler) {
        block(signal);
        const LockGuard lock(mutex_);
        handlers_[signal] = handler;
        if (!thread_.joinable()) {
            startThread();
        } else {
            pthread_kill(thread_.native_handle(), wakeUp());  // or it would keep waiting for the old set
        }
    }

 private:
    static int wakeUp() { return SIGRTMIN; }

    static void block(int signal) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
        if (error != 0) throw std::system_error(error, std::generic_category(), "cannot block a signal");
    }

    sigset_t handledSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, wakeUp());
        const LockGuard lock(mutex_);
        for (const auto& [signal, handler] : handlers_) sigaddset(&set, signal);
        return set;
    }

    CustomHandler handlerFor(int signal) {
        const LockGuard lock(mutex_);
        const auto found = handlers_.find(signal);
        return found == handlers_.end() ? nullptr : found->second;
    }

    // The thread begins with every signal blocked. One that is registered later would otherwise find it unblocked there
    // for a moment, and take its default action.
    void startThread() REQUIRES(mutex_) {
        const AllBlocked blocked;
        thread_ = std::thread([this] { receive(); });
    }

    void receive() {
        while (!ending_) {
            const sigset_t set = handledSignals();
            int received = 0;
            if (sigwait(&set, &received) != 0) continue;
            if (const CustomHandler handler = handlerFor(received); handler != nullptr) handler(received);
        }
    }

    std::atomic<bool> ending_{false};
    Mutex mutex_;
    std::map<int, CustomHandler> handlers_ GUARDED_BY(mutex_);
    std::thread thread_ GUARDED_BY(mutex_);  // joined by the destructor
};

std::atomic<ReceiverThread*> current{nullptr};

ReceiverThread::~ReceiverThread() {
    current = nullptr;
    if (!thread_.joinable()) return;
    ending_ = true;
    pthread_kill(thread_.native_handle(), wakeUp());
    thread_.join();
}

}  // namespace

std::unique_ptr<SignalReceiver> registerHandler() {
    auto receiver = std::make_unique<ReceiverThread>();
    current = receiver.get();
    return receiver;
}

void registerCustomHandler(int signal, void (*handler)(int)) {
    ReceiverThread* receiver = current;
    if (receiver == nullptr) {
        throw std::system_error(EINVAL, std::generic_category(), "registerHandler was not called");
    }
    receiver->add(signal, handler);
}

}  // namespace common::signal
