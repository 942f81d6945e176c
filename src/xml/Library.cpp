#include "xml/Library.h"

#include <libxml/parser.h>

#include "common/ThreadSafety.h"
#include "xml/EntityLoader.h"

namespace zav::xml {

namespace {

common::Mutex mutex;
unsigned instances GUARDED_BY(mutex) = 0;

}  // namespace

Library::Library() {
    const common::LockGuard lock(mutex);
    if (instances++ == 0) {
        xmlInitParser();
        xmlSetExternalEntityLoader(loadOnlyTheDocument);
    }
}

Library::~Library() {
    const common::LockGuard lock(mutex);
    if (--instances == 0) xmlCleanupParser();
}

}  // namespace zav::xml
