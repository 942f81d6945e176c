#include "common/TemporaryFolder.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <system_error>

namespace common {

TemporaryFolder::TemporaryFolder(const std::string& name) {
    std::string path = "/tmp/" + name + "-XXXXXX";
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const Descriptor reader(ends[0]);
    writer_.reset(ends[1]);
    if (::mkdtemp(path.data()) == nullptr) return;
    path_ = path;
    child_ = ::fork();
    if (child_ != 0) return;
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    writer_.close();
    for (const int output : {STDOUT_FILENO, STDERR_FILENO}) ::close(output);  // whoever reads them waits for the end
    char byte = 0;
    while (::read(reader.get(), &byte, 1) > 0) continue;
    remove();
    ::_exit(0);
}

TemporaryFolder::~TemporaryFolder() {
    remove();
    writer_.close();
    if (child_ > 0) ::waitpid(child_, nullptr, 0);
}

void TemporaryFolder::remove() const {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

}  // namespace common
