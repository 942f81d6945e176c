#include "BundleFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "debug/Debug.h"

namespace zav {

namespace {

// Empty if the text does not have the certificate.
std::string findIn(const std::string& text, const Digest& digest) {
    std::string found;
    visitCertificates(text, Parse::no, [&](std::string der, Place) {
        if (found.empty() && digestOf(der) == digest) found = std::move(der);
    });
    return found;
}

// Less than `place` if the file has become shorter or cannot be read; findIn then does not find the certificate.
std::string readPlace(int file, Place place) {
    std::string bytes(place.length, '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count =
            ::pread(file, bytes.data() + length, bytes.size() - length, static_cast<off_t>(place.begin + length));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        length += static_cast<std::size_t>(count);
    }
    bytes.resize(length);
    return bytes;
}

struct stat statusOf(int file, const std::string& path) {
    struct stat status {};
    if (::fstat(file, &status) != 0) throw std::system_error(errno, std::generic_category(), "Cannot read " + path);
    return status;
}

bool sameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

}  // namespace

BundleFile::BundleFile(std::string path, std::size_t limit)
    : path_(std::move(path)),
      limit_(limit),
      file_(openFile(path_, limit, Links::follow)),
      opened_(statusOf(file_.get(), path_)) {}

bool BundleFile::sameAs(const BundleFile& other) const {
    const struct stat& theirs = other.opened_;
    return opened_.st_dev == theirs.st_dev && opened_.st_ino == theirs.st_ino && opened_.st_size == theirs.st_size &&
           sameTime(opened_.st_mtim, theirs.st_mtim) && sameTime(opened_.st_ctim, theirs.st_ctim);
}

std::string BundleFile::text() const { return contentOf(file_.get(), path_, limit_); }

std::string BundleFile::find(const Digest& digest, Place place) const {
    try {
        std::string der = findIn(readPlace(file_.get(), place), digest);
        if (der.empty()) der = findIn(text(), digest);
        if (der.empty()) throw std::runtime_error(path_ + " was changed and no longer has it");
        return der;
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "A trusted certificate cannot be used: " << exception.what() << std::endl;
        return "";
    }
}

}  // namespace zav
