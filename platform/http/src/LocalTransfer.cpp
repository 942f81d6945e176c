#include "LocalTransfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "common/Descriptor.h"

namespace zav {

int transferLocally(const std::string& path, Curl::State& client, const TransferContext& context) {
    const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) return CURLE_READ_ERROR;
    const auto total = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    if (total > context.limit()) return CURLE_FILESIZE_EXCEEDED;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return CURLE_READ_ERROR;
        if (count == 0) return CURLE_OK;
        context.file.append(buffer.data(), static_cast<std::size_t>(count));
        if (context.file.size() > context.limit()) return CURLE_FILESIZE_EXCEEDED;
        client.report(static_cast<long>(total), static_cast<long>(context.file.size()));
    }
}

}  // namespace zav
