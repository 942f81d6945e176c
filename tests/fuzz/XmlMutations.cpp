// Gives libFuzzer mutations of the document's tree besides its own ones of bytes, which reach what is not well formed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/XmlMutator.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maximumSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maximumSize,
                                               unsigned seed);

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maximumSize,
                                               unsigned seed) {
    if (seed % 3 == 0) return LLVMFuzzerMutate(data, size, maximumSize);
    const std::string changed =
        fuzz::mutateXml(std::string(reinterpret_cast<const char*>(data), size), seed, maximumSize);
    if (changed.empty()) return LLVMFuzzerMutate(data, size, maximumSize);
    std::copy(changed.begin(), changed.end(), data);
    return changed.size();
}
