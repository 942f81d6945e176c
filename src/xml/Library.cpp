#include "xml/Library.h"

#include <libxml/parser.h>

#include <mutex>

#include "xml/EntityLoader.h"

namespace zav::xml {

namespace {

std::mutex mutex;
unsigned instances = 0;  // guarded by mutex

}  // namespace

Library::Library() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (instances++ == 0) {
        xmlInitParser();
        xmlSetExternalEntityLoader(loadOnlyTheDocument);
    }
}

Library::~Library() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (--instances == 0) xmlCleanupParser();
}

}  // namespace zav::xml
