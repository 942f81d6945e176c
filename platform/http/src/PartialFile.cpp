#include "PartialFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "common/PathRoot.h"

namespace zav {

namespace {

static_assert(sizeof(off_t) >= sizeof(std::uint64_t), "files over 2 GiB need _FILE_OFFSET_BITS=64");

constexpr std::string_view prefix = ".";
constexpr std::string_view suffix = ".part";

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

bool hasParentSegment(const std::string& path) { return ("/" + path + "/").find("/../") != std::string::npos; }

void makeFolders(const std::string& path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (::mkdir(common::rooted(folder).c_str(), 0700) != 0 && errno != EEXIST)
            fail(errno, "Cannot create the folder " + folder);
        if (end == std::string::npos) return;
    }
}

}  // namespace

PartialFile::PartialFile(const std::string& destination) : destination_(destination) {
    const auto slash = destination.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : destination.substr(0, slash + 1);
    name_ = slash == std::string::npos ? destination : destination.substr(slash + 1);
    if (name_.empty() || name_ == "." || hasParentSegment(destination)) fail(EINVAL, "Cannot write " + destination);
    temporaryName_ = std::string(prefix) + name_ + std::string(suffix);

    const auto last = folder.find_last_not_of('/');
    if (last != std::string::npos) makeFolders(folder.substr(0, last + 1));
    folder_.reset(::open(common::rooted(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder_.get() < 0) fail(errno, "Cannot open the folder " + folder);
    ::unlinkat(folder_.get(), temporaryName_.c_str(), 0);
    file_.reset(
        ::openat(folder_.get(), temporaryName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file_.get() < 0) fail(errno, "Cannot create a temporary file for " + destination);
}

PartialFile::~PartialFile() {
    if (!committed_) ::unlinkat(folder_.get(), temporaryName_.c_str(), 0);
}

bool PartialFile::isPartialName(const std::string& name) {
    return name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::uint64_t PartialFile::freeBytes() const {
    struct statvfs status {};
    if (::fstatvfs(folder_.get(), &status) != 0) fail(errno, "Cannot determine the free space for " + destination_);
    return std::uint64_t{status.f_bavail} * std::uint64_t{status.f_frsize};
}

void PartialFile::append(const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(file_.get(), data, length);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) fail(errno, "Cannot write " + destination_);
        data += written;
        length -= static_cast<std::size_t>(written);
        size_ += static_cast<std::uint64_t>(written);
    }
}

void PartialFile::restart() {
    if (::ftruncate(file_.get(), 0) != 0 || ::lseek(file_.get(), 0, SEEK_SET) != 0) {
        fail(errno, "Cannot write " + destination_);
    }
    size_ = 0;
}

void PartialFile::commit(Sync sync) {
    if (sync == Sync::yes && ::fsync(file_.get()) != 0) fail(errno, "Cannot sync " + destination_);
    if (::renameat(folder_.get(), temporaryName_.c_str(), folder_.get(), name_.c_str()) != 0) {
        fail(errno, "Cannot replace " + destination_);
    }
    committed_ = true;
    if (sync == Sync::yes && ::fsync(folder_.get()) != 0) fail(errno, "Cannot sync the folder of " + destination_);
}

}  // namespace zav
