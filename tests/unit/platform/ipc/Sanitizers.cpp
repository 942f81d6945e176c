#include "Sanitizers.h"

extern "C" const char* __tsan_default_suppressions();

// The thread sanitizer looks this up by name.
extern "C" const char* __tsan_default_suppressions() { return "mutex:libmosquitto.so\n"; }
