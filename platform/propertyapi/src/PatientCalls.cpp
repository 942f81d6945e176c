#include "propertyapi/PatientCalls.h"

namespace propertyapi {

namespace {

thread_local unsigned living = 0;

}  // namespace

PatientCalls::PatientCalls() { ++living; }

PatientCalls::~PatientCalls() { --living; }

bool PatientCalls::onThisThread() { return living > 0; }

}  // namespace propertyapi
