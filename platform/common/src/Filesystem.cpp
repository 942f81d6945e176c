#include "common/Filesystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "common/Descriptor.h"
#include "common/PathRoot.h"

namespace filesystem {

namespace {

struct Name {
    std::string text;
    bool isFolder;
    bool isRegular;
};

Name nameOf(int folder, const dirent& entry) {
    struct stat status {};
    auto mode = static_cast<mode_t>(DTTOIF(entry.d_type));
    if (entry.d_type == DT_UNKNOWN && ::fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        mode = status.st_mode;
    }
    return {entry.d_name, S_ISDIR(mode), S_ISREG(mode)};
}

common::Descriptor openFolder(int parent, const std::string& name, int flags) {
    return common::Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
}

// 0, or what kept the folder from being read.
int read(int folder, std::vector<Name>& names) {
    common::Descriptor own(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own.get() < 0 ? nullptr : ::fdopendir(own.get()), ::closedir);
    if (!stream) return errno;
    (void)own.release();  // the stream closes it
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());  // NOLINT(concurrency-mt-unsafe): a stream of our own
        if (entry == nullptr) return errno;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.push_back(nameOf(folder, *entry));
    }
}

struct Failure {
    int error = 0;
    std::string path;
};

void note(Failure& first, int error, const std::string& path) {
    if (first.error == 0) first = {error, path};
}

void removeEntries(int folder, const std::string& path, Failure& first) {
    std::vector<Name> names;
    const int error = read(folder, names);
    if (error != 0) note(first, error, path);
    for (const Name& name : names) {
        const std::string below = path + "/" + name.text;
        if (name.isFolder) {
            const common::Descriptor subfolder = openFolder(folder, name.text, O_NOFOLLOW);
            if (subfolder.get() >= 0) removeEntries(subfolder.get(), below, first);
        }
        if (::unlinkat(folder, name.text.c_str(), name.isFolder ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT) {
            note(first, errno, below);
        }
    }
}

void findEntries(int folder, const std::string& path, bool withSubfolders, std::vector<Entry>& found) {
    std::vector<Name> names;
    read(folder, names);
    for (Name& name : names) {
        std::string below = path + "/" + name.text;
        if (!name.isFolder) {
            found.push_back({std::move(below), name.isRegular});
        } else if (withSubfolders) {
            const common::Descriptor subfolder = openFolder(folder, name.text, O_NOFOLLOW);
            if (subfolder.get() >= 0) findEntries(subfolder.get(), below, true, found);
        }
    }
}

}  // namespace

void removeAllFromDirectory(const std::string& directory) {
    const std::string path = common::rooted(directory);
    const common::Descriptor folder = openFolder(AT_FDCWD, path, 0);
    Failure first;
    if (folder.get() < 0 && errno == ENOENT) return;
    if (folder.get() < 0) {
        throw std::filesystem::filesystem_error("cannot read the folder", directory,
                                                std::error_code(errno, std::generic_category()));
    }
    removeEntries(folder.get(), path, first);
    if (first.error == 0) return;
    throw std::filesystem::filesystem_error("cannot remove", first.path,
                                            std::error_code(first.error, std::generic_category()));
}

std::vector<Entry> entriesOf(const std::string& folder, bool withSubfolders) {
    std::vector<Entry> found;
    const bool endsInSlash = folder.size() > 1 && folder.back() == '/';
    const std::string path = endsInSlash ? folder.substr(0, folder.size() - 1) : folder;
    const common::Descriptor opened = openFolder(AT_FDCWD, path, O_NOFOLLOW);
    if (opened.get() >= 0) findEntries(opened.get(), path, withSubfolders, found);
    return found;
}

}  // namespace filesystem
