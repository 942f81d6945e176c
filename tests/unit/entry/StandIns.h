// Stand-ins for the objects of the daemon's entry; each logs its creation, its calls and its destruction. Environment
// variables: FAILS names a step that throws, HOLD a step that waits for the end of standard input, and LOCK=taken makes
// another daemon hold the lock.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "debug/Debug.h"

namespace standins {

inline void record(const std::string& text) { dbg::Debug::info() << text << std::endl; }

inline bool is(const char* variable, const std::string& value) {
    const char* const given = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): nobody changes the environment
    return given != nullptr && given == value;
}

inline void step(const std::string& name) {
    record(name);
    char byte = 0;
    while (is("HOLD", name) && ::read(0, &byte, 1) > 0) {
    }
    if (is("FAILS", name)) throw std::runtime_error(name);
}

inline bool isTerminationBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, SIGTERM) == 1;
}

class Recorded {
 public:
    explicit Recorded(std::string name) : name_(std::move(name)) { record("created " + name_); }
    ~Recorded() { record("destroyed " + name_); }
    Recorded(const Recorded&) = delete;
    Recorded& operator=(const Recorded&) = delete;

 private:
    const std::string name_;
};

}  // namespace standins

constexpr int CURL_GLOBAL_ALL = 3;
inline void curl_global_init(int flags) { standins::record("curl_global_init " + std::to_string(flags)); }
inline void curl_global_cleanup() { standins::record("curl_global_cleanup"); }

namespace ipc {

class Bus : standins::Recorded {
 public:
    Bus() : Recorded("bus") {}
};

struct IPCFactory {
    static std::shared_ptr<Bus> createInstanceShared(const std::string& name, const std::string& host, bool transient) {
        standins::record("bus client " + name + " " + host + (transient ? " transient" : "") +
                         (standins::isTerminationBlocked() ? ", SIGTERM is blocked" : ""));
        return std::make_shared<Bus>();
    }
};

}  // namespace ipc

namespace propertyapi {

class Properties : standins::Recorded {
 public:
    Properties() : Recorded("properties") {}
    static void beginShutdown() { standins::record("properties: shutdown begins"); }
};

struct PropertyApiBuilder {
    static std::shared_ptr<Properties> getPropertyApi(const std::shared_ptr<ipc::Bus>&, const std::string& name) {
        standins::record("property client " + name);
        return std::make_shared<Properties>();
    }
};

}  // namespace propertyapi

namespace zav {

using PropertyClient = std::shared_ptr<propertyapi::Properties>;

class DaemonLock : standins::Recorded {
 public:
    enum class State { held, heldByAnother, unavailable };
    DaemonLock() : Recorded("lock") {}
    static State state() { return standins::is("LOCK", "taken") ? State::heldByAnother : State::held; }
};

inline void cleanUpAfterPredecessor(propertyapi::Properties&) { standins::record("cleaned up"); }
inline bool isServerReachable() { return true; }
inline void omitErrorTexts() {}

namespace xml {

class Library : standins::Recorded {
 public:
    Library() : Recorded("xml library") {}
};

}  // namespace xml

class ProvisioningTimer : standins::Recorded {
 public:
    explicit ProvisioningTimer(const PropertyClient&) : Recorded("timer") {}
};

class Security : standins::Recorded {
 public:
    explicit Security(const PropertyClient&) : Recorded("security") {}
};

class Curl : standins::Recorded {
 public:
    Curl() : Recorded("http client") {}
};

class Dispatcher : standins::Recorded {
 public:
    Dispatcher(std::shared_ptr<ipc::Bus> bus, PropertyClient properties, ProvisioningTimer&, std::shared_ptr<Curl> http,
               Security&)
        : Recorded("dispatcher"), bus_(std::move(bus)), properties_(std::move(properties)), http_(std::move(http)) {}
    void startListening() const {
        standins::record("owners of the http client: " + std::to_string(http_.use_count()));
        standins::step("start listening");
    }
    static void startHandling() { standins::step("start handling"); }
    static void stopListening() { standins::step("stop listening"); }

 private:
    const std::shared_ptr<ipc::Bus> bus_;
    const PropertyClient properties_;
    const std::shared_ptr<Curl> http_;
};

class Init : standins::Recorded {
 public:
    Init(ProvisioningTimer&, const PropertyClient&) : Recorded("init") {}
    static void run() { standins::step("run init"); }
};

class NetworkMediator : standins::Recorded {
 public:
    NetworkMediator() : Recorded("mediator") {}
    static void start(const std::shared_ptr<Dispatcher>&, bool (*)(), const std::function<void()>& first) {
        standins::step("start mediator");
        first();
    }
};

}  // namespace zav
