#include "pack/Published.h"

#include <sys/stat.h>

#include "pack/Container.h"
#include "pack/Error.h"
#include "pack/Files.h"

namespace pack {

namespace {

// Most files of a first run are not there, which is not worth an exception.
bool isFileOfSize(const std::string& path, std::uint64_t size) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           static_cast<std::uint64_t>(status.st_size) == size;
}

}  // namespace

bool isPublished(const std::string& path, const std::string& plain, const std::string& passPhrase) {
    const std::uint64_t size = encryptedSize(plain.size());
    if (!isFileOfSize(path, size)) return false;
    try {
        return decrypt(readFile(path, size), passPhrase) == plain;
    } catch (const Error&) {
        return false;
    }
}

bool hasContent(const std::string& path, const std::string& bytes) {
    if (!isFileOfSize(path, bytes.size())) return false;
    try {
        return readFile(path, bytes.size()) == bytes;
    } catch (const Error&) {
        return false;
    }
}

}  // namespace pack
