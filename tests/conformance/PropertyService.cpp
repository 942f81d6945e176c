#include "PropertyService.h"

#include <signal.h>

#include <stdexcept>

#include "Bus.h"
#include "Library.h"
#include "Settings.h"

namespace conformance {

PropertyService::PropertyService()
    : program_(settings().startService, settings().stopService),
      client_(busLibrary().client("conformance", Bus::address(), false)),
      properties_(propertyLibrary().client(client_, "conformance")) {
    program_.start();
    client_->connect(Bus::address());
    awaitAnswers();
}

PropertyService::~PropertyService() {
    thaw();
    client_->disconnect();
}

void PropertyService::awaitAnswers() {
    const auto answers = [this] {
        try {
            properties_->get(settings().textKey);
            return true;
        } catch (const propertyapi::PropertyNotFoundException&) {
            throw;
        } catch (const propertyapi::PropertyException&) {
            return false;
        }
    };
    if (!within(startLimit, answers)) throw std::runtime_error("No answers after " + settings().startService);
}

void PropertyService::start() {
    launch();
    awaitAnswers();
}

void PropertyService::awaitOffline() {
    const auto isOffline = [this] {
        try {
            properties_->get(settings().textKey);
        } catch (const propertyapi::PropertyOfflineException&) {
            return true;
        } catch (const propertyapi::PropertyTimeoutException&) {
        }
        return false;
    };
    if (!within(startLimit, isOffline)) throw std::runtime_error("The property service is not seen to be offline");
}

void PropertyService::launch() { program_.start(); }
void PropertyService::stop() { program_.kill(); }
void PropertyService::freeze() const { program_.signal(SIGSTOP); }
void PropertyService::thaw() const { program_.signal(SIGCONT); }

}  // namespace conformance
