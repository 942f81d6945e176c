#include "common/Memory.h"

#include <cstdlib>  // defines __GLIBC__

// uClibc claims to be glibc.
#if defined(__GLIBC__) && !defined(__UCLIBC__)
#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/Descriptor.h"
#define ZAV_GLIBC_HEAP 1
#else
#define ZAV_GLIBC_HEAP 0
#endif

namespace common {

#if ZAV_GLIBC_HEAP
namespace {

/// A debugger's breakpoints are changes to the code. If it cannot be told, there may be one.
bool mayHaveBreakpoints() {
    constexpr std::string_view none = "\nTracerPid:\t0\n";
    const Descriptor status(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    std::array<char, 2048> text{};
    const ssize_t size = ::read(status.get(), text.data(), text.size());
    return size <= 0 ||
           std::string_view(text.data(), static_cast<std::size_t>(size)).find(none) == std::string_view::npos;
}

/// The loader tells addresses as numbers.
void* pointerTo(std::uintptr_t address) {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr): see above
}

/// Whether the loader has changed the code, as in libraries that are not position-independent.
bool hasRelocatedCode(const dl_phdr_info& object) {
    for (std::size_t i = 0; i < object.dlpi_phnum; ++i) {
        if (object.dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
        const auto* entry = static_cast<const ElfW(Dyn)*>(pointerTo(object.dlpi_addr + object.dlpi_phdr[i].p_vaddr));
        for (; entry->d_tag != DT_NULL; ++entry) {
            const bool isRelocated =
                entry->d_tag == DT_TEXTREL || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0);
            if (isRelocated) return true;
        }
    }
    return false;
}

/// Gives up the pages of code and constants, which the system reads from the object's file when they are used again.
int releaseCode(dl_phdr_info* object, std::size_t, void*) {
    if (hasRelocatedCode(*object)) return 0;
    const auto inPage = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE)) - 1;
    for (std::size_t i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const std::uintptr_t begin = (object->dlpi_addr + segment.p_vaddr) & ~inPage;
        const std::uintptr_t end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        ::madvise(pointerTo(begin), end - begin, MADV_DONTNEED);
    }
    return 0;
}

}  // namespace
#endif

void useOneHeap() {
#if ZAV_GLIBC_HEAP
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
    mallopt(M_ARENA_MAX, 1);
#endif
}

void releaseFreeMemory() {
#if ZAV_GLIBC_HEAP
    malloc_trim(0);
#endif
}

void releaseCode() {
#if ZAV_GLIBC_HEAP
    if (!mayHaveBreakpoints()) dl_iterate_phdr(&releaseCode, nullptr);
#endif
}

}  // namespace common
