#include "lint/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

namespace lint {

namespace {

bool writeAll(int file, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(file, bytes.data() + written, bytes.size() - written);
        if (count <= 0) return false;
        written += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

common::Descriptor memoryFile(const std::string& bytes) {
    const int file = ::memfd_create("lint", MFD_CLOEXEC);
    if (file < 0 || !writeAll(file, bytes)) {
        if (file >= 0) ::close(file);
        return common::Descriptor();
    }
    ::lseek(file, 0, SEEK_SET);
    return common::Descriptor(file);
}

std::string contentOf(const common::Descriptor& file) {
    std::string content;
    if (file.get() < 0) return content;
    const off_t size = ::lseek(file.get(), 0, SEEK_END);
    ::lseek(file.get(), 0, SEEK_SET);
    content.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
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
