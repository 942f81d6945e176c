#include "pack/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <tuple>

#include "common/Descriptor.h"
#include "debug/Debug.h"
#include "pack/Error.h"
#include "propertyprotocol/Utf8.h"

namespace pack {

namespace {

namespace fs = std::filesystem;
using common::reasonOf;

constexpr std::size_t chunkBytes = 256UL * 1024;
// A deeper tree is a mistake, and each level costs stack.
constexpr int maxDepth = 64;

// Not blocking: a pipe that nobody writes to would never open.
common::Descriptor openFile(const std::string& path, struct stat& status) {
    common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        throw Error(path, "cannot be opened: " + reasonOf(errno));
    }
    if (S_ISDIR(status.st_mode)) throw Error(path, "is a folder");
    if (!S_ISREG(status.st_mode)) throw Error(path, "is not a regular file");
    return common::Descriptor(file.release());
}

std::size_t readSome(const common::Descriptor& file, const std::string& path, char* buffer, std::size_t size) {
    ssize_t count = -1;
    do {
        count = ::read(file.get(), buffer, size);
    } while (count < 0 && errno == EINTR);
    if (count < 0) throw Error(path, "cannot be read: " + reasonOf(errno));
    return static_cast<std::size_t>(count);
}

std::size_t readFully(const common::Descriptor& file, const std::string& path, char* buffer, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const std::size_t count = readSome(file, path, buffer + done, size - done);
        if (count == 0) break;
        done += count;
    }
    return done;
}

bool isPrintableName(const std::string& name) {
    return propertyprotocol::isUtf8(name) && dbg::escapeControls(name) == name;
}

bool isInside(const fs::path& path, const fs::path& folder) {
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

class Lister {
 public:
    explicit Lister(const std::string& folder) : root_(folder) {
        std::error_code error;
        canonicalRoot_ = fs::canonical(root_, error);
        if (error) throw Error(folder, "cannot be opened: " + error.message());
    }

    Folder list() {
        listBelow(root_, "", 0);
        std::sort(result_.files.begin(), result_.files.end());
        std::sort(result_.hidden.begin(), result_.hidden.end());
        return std::move(result_);
    }

 private:
    void listBelow(const fs::path& folder, const std::string& prefix, int depth) {
        std::error_code error;
        fs::directory_iterator entries(folder, error);
        if (error && depth == 0) throw Error(folder.string(), "cannot be read: " + error.message());
        if (error) return reject(prefix.substr(0, prefix.size() - 1), "the folder cannot be read: " + error.message());
        for (; entries != fs::directory_iterator(); entries.increment(error)) {
            take(*entries, prefix + entries->path().filename().string(), depth);
            if (error) break;
        }
        if (error) reject(prefix, "the folder cannot be read: " + error.message());
    }

    void take(const fs::directory_entry& entry, const std::string& name, int depth) {
        if (entry.path().filename().string().front() == '.') {
            result_.hidden.push_back(name);
            return;
        }
        if (!isPrintableName(name)) return reject(name, "the name has control characters or is not UTF-8");
        std::error_code error;
        const fs::file_status status = entry.symlink_status(error);
        if (error) return reject(name, "cannot be examined: " + error.message());
        if (fs::is_symlink(status)) return takeLink(entry.path(), name);
        if (fs::is_regular_file(status)) {
            result_.files.push_back(name);
        } else if (!fs::is_directory(status)) {
            reject(name, "is neither a file nor a folder");
        } else if (depth + 1 >= maxDepth) {
            reject(name, "folders inside each other more than " + std::to_string(maxDepth) + " deep");
        } else {
            listBelow(entry.path(), name + "/", depth + 1);
        }
    }

    void takeLink(const fs::path& path, const std::string& name) {
        std::error_code error;
        const fs::path target = fs::canonical(path, error);
        if (error) return reject(name, "a symbolic link that leads nowhere: " + error.message());
        if (!isInside(target, canonicalRoot_)) return reject(name, "a symbolic link that leads out of the folder");
        const fs::path inside = target.lexically_relative(canonicalRoot_);
        const bool hidden = std::any_of(inside.begin(), inside.end(),
                                        [](const fs::path& step) { return step.string().front() == '.'; });
        if (hidden) return reject(name, "a symbolic link to a hidden file, which is not published");
        if (!fs::is_regular_file(target, error)) return reject(name, "a symbolic link to something that is not a file");
        result_.files.push_back(name);
    }

    void reject(const std::string& name, const std::string& reason) { result_.problems.push_back({name, reason}); }

    const fs::path root_;
    fs::path canonicalRoot_;
    Folder result_;
};

}  // namespace

std::string readFile(const std::string& path, std::uint64_t limit) {
    struct stat status {};
    const common::Descriptor file = openFile(path, status);
    const std::uint64_t expected = std::min(static_cast<std::uint64_t>(status.st_size), limit);
    if (expected >= std::string().max_size() / 2) throw Error(path, "is too large for this machine's memory");
    std::string content(static_cast<std::size_t>(expected) + 1, '\0');
    for (std::size_t size = 0;;) {
        size += readFully(file, path, content.data() + size, content.size() - size);
        if (size > limit) throw Error(path, "has more than " + std::to_string(limit) + " bytes");
        if (size < content.size()) {
            content.resize(size);
            return content;
        }
        const std::uint64_t more = std::min<std::uint64_t>(content.size(), limit + 1 - size);  // it has grown meanwhile
        content.resize(content.size() + static_cast<std::size_t>(more));
    }
}

std::string readBeginning(const std::string& path, std::size_t count) {
    struct stat status {};
    const common::Descriptor file = openFile(path, status);
    std::string content(std::min(count, static_cast<std::size_t>(status.st_size)), '\0');
    content.resize(readFully(file, path, content.data(), content.size()));
    return content;
}

bool sameContent(const std::string& path, const std::string& other) {
    struct stat status {};
    const common::Descriptor file = openFile(path, status);
    struct stat otherStatus {};
    const common::Descriptor second(::open(other.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (second.get() < 0 || ::fstat(second.get(), &otherStatus) != 0) return false;
    if (!S_ISREG(otherStatus.st_mode) || status.st_size != otherStatus.st_size) return false;
    std::string one(chunkBytes, '\0');
    std::string two(chunkBytes, '\0');
    for (;;) {
        const std::size_t count = readFully(file, path, one.data(), one.size());
        if (count != readFully(second, other, two.data(), two.size())) return false;
        if (one.compare(0, count, two, 0, count) != 0) return false;
        if (count < one.size()) return true;
    }
}

bool FileState::operator==(const FileState& other) const {
    const auto all = [](const FileState& state) {
        return std::tie(state.device, state.inode, state.size, state.modifiedSeconds, state.modifiedNanoseconds);
    };
    return all(*this) == all(other);
}

FileState stateOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) throw Error(path, "cannot be examined: " + reasonOf(errno));
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

Folder listFolder(const std::string& folder) { return Lister(folder).list(); }

std::vector<std::string> listPublished(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    if (!fs::exists(folder, error)) return names;
    const fs::path root(folder);
    try {
        for (auto entry = fs::recursive_directory_iterator(root); entry != fs::recursive_directory_iterator();
             ++entry) {
            if (entry->path().filename().string().front() == '.') {
                entry.disable_recursion_pending();
            } else if (!fs::is_directory(entry->symlink_status())) {
                names.push_back(entry->path().lexically_relative(root).string());
            }
        }
    } catch (const fs::filesystem_error& failure) {
        throw Error(failure.path1().string(), "cannot be read: " + failure.code().message());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string printable(const std::string& name) {
    static constexpr char digits[] = "0123456789abcdef";
    const std::string escaped = dbg::escapeControls(name);
    std::string text;
    for (std::size_t at = 0; at < escaped.size();) {
        const std::size_t length = propertyprotocol::utf8SequenceLength(escaped, at);
        if (length > 0) {
            text.append(escaped, at, length);
            at += length;
        } else {
            const auto byte = static_cast<unsigned char>(escaped[at++]);
            text += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xfU]};
        }
    }
    return text;
}

}  // namespace pack
