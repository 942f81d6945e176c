// The entry points of libFuzzer for the target FUZZ_TARGET.
#include <cstddef>
#include <cstdint>

#include "debug/Debug.h"
#include "fuzz/Targets.h"

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Lines of the log would take most of the time.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dbg::Debug::setDebugLevelMask("0");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FUZZ_TARGET(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
