#include "Thread.h"

#include <pthread.h>
#include <signal.h>

#include <string>
#include <system_error>
#include <utility>

#include "ipc/IPCException.h"

namespace ipc {

std::thread startThread(const char* name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread;
    std::string failure;
    try {
        thread = std::thread(std::move(body));
    } catch (const std::system_error& error) {
        failure = error.what();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!thread.joinable()) throw IPCException("Cannot start a thread: " + failure);
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

}  // namespace ipc
