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

struct TemporaryFile {
    TemporaryFile() : path(std::filesystem::temp_directory_path() / "zav-fuzz-XXXXXX") {
        const common::Descriptor file(::mkostemp(path.data(), O_CLOEXEC));
        if (file.get() < 0) fail(path);
    }
    ~TemporaryFile() { ::unlink(path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void write(const std::string& content) const {
        const common::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (file.get() < 0) fail(path);
        for (std::size_t written = 0; written < content.size();) {
            const ssize_t count = ::write(file.get(), content.data() + written, content.size() - written);
            if (count < 0) fail(path);
            written += static_cast<std::size_t>(count);
        }
    }

    std::string path;
};

}  // namespace

const std::string& inputFile(const std::string& content) {
    static const TemporaryFile temporary;
    temporary.write(content);
    return temporary.path;
}

const std::string& keyFile() {
    static const TemporaryFile temporary;
    temporary.write("phrase");
    return temporary.path;
}

}  // namespace fuzz
