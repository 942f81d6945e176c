#include "fuzz/InputFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "common/Descriptor.h"

namespace fuzz {

namespace {

[[noreturn]] void fail(const std::string& path) { throw std::system_error(errno, std::generic_category(), path); }

}  // namespace

TemporaryFile::TemporaryFile(const std::string& content)
    : path_(std::filesystem::temp_directory_path() / "zav-fuzz-XXXXXX") {
    const common::Descriptor file(::mkostemp(path_.data(), O_CLOEXEC));
    if (file.get() < 0) fail(path_);
    write(content);
}

TemporaryFile::~TemporaryFile() { ::unlink(path_.c_str()); }

void TemporaryFile::write(const std::string& content) const {
    const common::Descriptor file(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (file.get() < 0) fail(path_);
    for (std::size_t written = 0; written < content.size();) {
        const ssize_t count = ::write(file.get(), content.data() + written, content.size() - written);
        if (count < 0) fail(path_);
        written += static_cast<std::size_t>(count);
    }
}

const std::string& inputFile(const std::string& content) {
    static const TemporaryFile temporary;
    temporary.write(content);
    return temporary.path();
}

}  // namespace fuzz
