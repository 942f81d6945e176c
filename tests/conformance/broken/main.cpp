// zav-platform-tests with libraries that break one promise, named by ZAV_BROKEN_PROMISE: adapters around ours.
// test_broken.py has the names, and the check that must notice each.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "BrokenBus.h"
#include "BrokenProperties.h"
#include "CommandLine.h"
#include "Library.h"
#include "PropertyService.h"

int main(int argc, char** argv) {
    const char* promise = std::getenv("ZAV_BROKEN_PROMISE");
    broken::promise() = promise == nullptr ? "" : promise;
    conformance::busLibrary() = {broken::createClient, broken::createService};
    conformance::propertyLibrary() = {broken::createProperties};
    return conformance::run(argc, argv);
}
