#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "Output.h"

namespace zavctl {

namespace {

constexpr std::size_t usualColumns = 80;

}  // namespace

std::size_t terminalColumns() {
    const char* const variable = std::getenv("COLUMNS");  // NOLINT(concurrency-mt-unsafe): nothing sets variables
    if (variable != nullptr && isNumber(variable) && std::stoul(variable) > 0) return std::stoul(variable);
    for (const int descriptor : {STDERR_FILENO, STDOUT_FILENO}) {
        struct winsize size {};
        if (::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    }
    return usualColumns;
}

}  // namespace zavctl
