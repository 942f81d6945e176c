// Entry point of zavd: creates everything in order, waits for SIGTERM, destroys it in reverse order.

#include <curl/curl.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Core/Constants.h"
#include "Core/Dispatcher.h"
#include "Core/Init.h"
#include "Core/NetworkMediator.h"
#include "Core/Predecessor.h"
#include "Core/ProvisioningTimer.h"
#include "Core/Utils.h"
#include "common/Descriptor.h"
#include "common/Memory.h"
#include "common/Signal.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"
#include "http/Curl.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "security/ErrorTexts.h"
#include "security/Security.h"
#include "xml/Library.h"

namespace {

const dbg::Debug channel("ZAV");
common::ConditionVariable termination;
common::Mutex terminationMutex;

// Runs on the signal thread, not in a signal handler.
void onTerminate(int) {
    const common::LockGuard lock(terminationMutex);
    termination.notifyOne();
}

// Waits without a predicate: a SIGTERM that arrives before this is lost, a spurious wake-up ends the process.
void waitForTermination() {
    const common::LockGuard lock(terminationMutex);
    termination.wait(terminationMutex);
}

int run() {
    dbg::Debug::info() << "ZAV starting up..." << std::endl;
    const zav::DaemonLock daemonLock;
    if (daemonLock.state() == zav::DaemonLock::State::heldByAnother) {
        dbg::Debug::error() << "another zavd is running" << std::endl;
        return EXIT_FAILURE;
    }
    const auto signals = common::signal::registerHandler();
    common::signal::registerCustomHandler(SIGTERM, onTerminate);
    const zav::xml::Library xmlLibrary;
    const auto bus = ipc::IPCFactory::createInstanceShared(zav::constants.clientName, zav::constants.brokerHost, false);
    const auto properties = propertyapi::PropertyApiBuilder::getPropertyApi(bus, zav::constants.clientName);
    zav::ProvisioningTimer timer(properties);
    zav::Security security(properties);
    curl_global_init(CURL_GLOBAL_ALL);
    auto http = std::make_shared<zav::Curl>();
    const auto dispatcher = std::make_shared<zav::Dispatcher>(bus, properties, timer, http, security);
    http.reset();
    dispatcher->startListening();
    zav::Init init(timer, properties);
    init.run();
    dispatcher->startHandling();
    dbg::Debug::info() << "ZAV initialized." << std::endl;
    zav::NetworkMediator mediator;  // its destructor waits for its thread, which uses the objects above
    mediator.start(dispatcher, zav::isServerReachable, [&properties, &daemonLock] {
        if (daemonLock.state() == zav::DaemonLock::State::held) zav::cleanUpAfterPredecessor(*properties);
    });
    waitForTermination();

    dbg::Debug::beginShutdown();
    properties->beginShutdown();
    dispatcher->stopListening();
    curl_global_cleanup();
    dbg::Debug::info() << "ZAV exited" << std::endl;
    return 0;
}

}  // namespace

int main() {
    common::occupyStandardDescriptors();
    common::useOneHeap();
    zav::omitErrorTexts();
    try {
        return run();
    } catch (...) {
        throw;  // caught and thrown again so that the stack is unwound and destructors run
    }
}
