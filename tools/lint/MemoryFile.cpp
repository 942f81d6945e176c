#include "lint/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "common/Descriptor.h"
#include "lint/Lint.h"

namespace lint {

namespace {

[[noreturn]] void fail() { throw LintException("no file in memory can be made: " + common::reasonOf(errno)); }

}  // namespace

common::Descriptor memoryFile(const std::string& bytes) {
    common::Descriptor file(::memfd_create("lint", MFD_CLOEXEC));
    if (file.get() < 0) fail();
    for (std::size_t written = 0; written < bytes.size();) {
        const ssize_t count = ::write(file.get(), bytes.data() + written, bytes.size() - written);
        if (count < 0) fail();
        written += static_cast<std::size_t>(count);
    }
    ::lseek(file.get(), 0, SEEK_SET);
    return common::Descriptor(file.release());
}

std::string contentOf(const common::Descriptor& file) {
    const off_t size = ::lseek(file.get(), 0, SEEK_END);
    ::lseek(file.get(), 0, SEEK_SET);
    std::string content(static_cast<std::size_t>(size), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = ::read(file.get(), content.data() + done, content.size() - done);
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    content.resize(done);
    return content;
}

std::string pathOf(const common::Descriptor& file) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(file.get());
}

}  // namespace lint
