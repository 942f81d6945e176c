#include "pack/Output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "common/Filesystem.h"
#include "pack/Error.h"
#include "pack/Parallel.h"

namespace pack {

namespace {

using common::reasonOf;

constexpr char stagingName[] = "/.zavctl-staging";
constexpr std::size_t chunkBytes = 256UL * 1024;
// Replaced files that are kept open; a process may usually open 1024.
constexpr std::size_t renamedAtOnce = 256;

mode_t withoutMask(mode_t mode) {
    // Reading the mask means setting it. No other thread creates files yet.
    const mode_t mask = ::umask(077);
    ::umask(mask);
    return mode & ~mask;
}

void writeAll(const common::Descriptor& file, const char* bytes, std::size_t size, const std::string& name) {
    for (std::size_t written = 0; written < size;) {
        const ssize_t count = ::write(file.get(), bytes + written, size - written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw Error(name, "cannot be written: " + reasonOf(errno));
        written += static_cast<std::size_t>(count);
    }
}

bool isFolder(const std::string& path, int& error) {
    struct stat status {};
    error = ::lstat(path.c_str(), &status) == 0 ? 0 : errno;
    return error == 0 && S_ISDIR(status.st_mode);
}

std::string parentOf(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    return slash == std::string::npos ? "" : name.substr(0, slash);
}

}  // namespace

std::string obstacle(const std::string& folder, const std::string& name) {
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
        const std::string above = name.substr(0, slash);
        int error = 0;
        if (isFolder(folder + "/" + above, error)) continue;
        if (error == ENOENT) return "";
        if (error != 0) return folder + "/" + above + " cannot be examined: " + reasonOf(error);
        return folder + "/" + above + " is not a folder";
    }
    struct stat status {};
    if (::lstat((folder + "/" + name).c_str(), &status) != 0) {
        return errno == ENOENT ? "" : folder + "/" + name + " cannot be examined: " + reasonOf(errno);
    }
    if (S_ISREG(status.st_mode)) return "";
    if (S_ISDIR(status.st_mode)) return folder + "/" + name + " is a folder";
    if (S_ISLNK(status.st_mode)) return folder + "/" + name + " is a symbolic link, which is not followed";
    return folder + "/" + name + " is not a regular file";
}

Output::Output(std::string folder, Access access)
    : folder_(std::move(folder)),
      staging_(folder_ + stagingName),
      fileMode_(access == Access::owner ? 0600 : withoutMask(0666)),
      folderMode_(access == Access::owner ? 0700 : withoutMask(0777)) {
    if (::mkdir(folder_.c_str(), folderMode_) != 0 && errno != EEXIST) {
        throw Error(folder_, "cannot be created: " + reasonOf(errno));
    }
    lock();
    filesystem::removeAllFromDirectory(staging_);
}

Output::~Output() {
    try {
        filesystem::removeAllFromDirectory(staging_);
    } catch (const std::exception&) {
        // The next run removes it.
    }
    ::rmdir(staging_.c_str());
}

// The process that ends removes the folder, so the one that was locked may be gone.
void Output::lock() {
    for (;;) {
        if (::mkdir(staging_.c_str(), 0700) != 0 && errno != EEXIST) {
            throw Error(folder_, "cannot be written to: " + reasonOf(errno));
        }
        lock_.reset(::open(staging_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (lock_.get() < 0 && errno == ENOENT) continue;
        if (lock_.get() < 0) throw Error(staging_, "cannot be opened: " + reasonOf(errno));
        if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) throw Error(folder_, "another zavctl is writing to this folder");
            const int error = errno;
            ::rmdir(staging_.c_str());
            throw Error(staging_, "cannot be locked: " + reasonOf(error));
        }
        struct stat locked {};
        struct stat present {};
        if (::fstat(lock_.get(), &locked) == 0 && ::lstat(staging_.c_str(), &present) == 0 &&
            locked.st_ino == present.st_ino && locked.st_dev == present.st_dev) {
            return;
        }
    }
}

common::Descriptor Output::create(std::string& path) {
    path = staging_ + "/" + std::to_string(count_.fetch_add(1));
    return common::Descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

void Output::finish(const common::Descriptor& file, const std::string& name) const {
    if (::fchmod(file.get(), fileMode_) != 0) throw Error(name, "cannot be written: " + reasonOf(errno));
}

Staged Output::stage(const std::string& name, const std::string& bytes) {
    Staged staged{"", name};
    const common::Descriptor file = create(staged.temporary);
    if (file.get() < 0) throw Error(name, "cannot be written: " + reasonOf(errno));
    writeAll(file, bytes.data(), bytes.size(), name);
    finish(file, name);
    return staged;
}

Staged Output::stageCopy(const std::string& name, const std::string& source) {
    const common::Descriptor from(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (from.get() < 0) throw Error(source, "cannot be opened: " + reasonOf(errno));
    Staged staged{"", name};
    const common::Descriptor file = create(staged.temporary);
    if (file.get() < 0) throw Error(name, "cannot be written: " + reasonOf(errno));
    std::string buffer(chunkBytes, '\0');
    for (;;) {
        const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw Error(source, "cannot be read: " + reasonOf(errno));
        if (count == 0) break;
        writeAll(file, buffer.data(), static_cast<std::size_t>(count), name);
    }
    finish(file, name);
    return staged;
}

void Output::makeParents(const std::string& name) {
    const std::string parent = parentOf(name);
    if (parent.empty() || madeFolders_.count(parent) > 0) return;
    makeParents(parent);
    const std::string path = folder_ + "/" + parent;
    if (::mkdir(path.c_str(), folderMode_) != 0) {
        int error = errno;
        if (error != EEXIST) throw Error(path, "cannot be created: " + reasonOf(error));
        if (!isFolder(path, error)) throw Error(path, "is not a folder");
    }
    madeFolders_.insert(parent);
}

// One call for all files: syncing each one by itself would take milliseconds a file.
void Output::syncAll() const {
    if (::syncfs(lock_.get()) != 0) throw Error(folder_, "cannot be synced to the disk: " + reasonOf(errno));
}

// The disk may take milliseconds to free a file, and a rename frees the file that it replaces, with a lock that all
// other renames wait for. A file that is open is freed when it is closed, and that can happen on several threads.
void Output::rename(const Staged& file, common::Descriptor& replaced) {
    makeParents(file.name);
    const std::string path = folder_ + "/" + file.name;
    replaced.reset(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (::rename(file.temporary.c_str(), path.c_str()) != 0) {
        throw Error(path, "cannot be written: " + reasonOf(errno));
    }
}

void Output::publish(const std::vector<Staged>& files, const std::function<void(std::size_t)>& progress) {
    if (files.empty()) return;
    syncAll();
    std::size_t done = 0;
    try {
        std::vector<common::Descriptor> replaced;
        while (done < files.size()) {
            replaced = std::vector<common::Descriptor>(std::min(renamedAtOnce, files.size() - done));
            for (common::Descriptor& old : replaced) {
                rename(files[done], old);
                progress(++done);
            }
            forEach(
                replaced.size(), [&](std::size_t index) { replaced[index].close(); }, nullptr, Bound::disk);
        }
    } catch (const Error& error) {
        throw Error(std::string(error.what()) + " (" + std::to_string(done) + " of " + std::to_string(files.size()) +
                    " files were published before)");
    }
    syncAll();
}

void Output::remove(const std::vector<std::string>& names) {
    forEach(
        names.size(),
        [&](std::size_t index) {
            const std::string path = folder_ + "/" + names[index];
            if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
                throw Error(path, "cannot be removed: " + reasonOf(errno));
            }
        },
        nullptr, Bound::disk);
    for (const std::string& name : names) {
        for (std::string parent = parentOf(name); !parent.empty(); parent = parentOf(parent)) {
            if (::rmdir((folder_ + "/" + parent).c_str()) != 0) break;
        }
    }
    if (!names.empty()) syncAll();
}

}  // namespace pack
