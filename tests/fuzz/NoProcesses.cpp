// Linked into fuzzing programs whose target would start processes: these functions take the place of the library's,
// which fork. A process that has a sanitizer forks slowly, and libFuzzer runs each input in the same one.
#include <stdlib.h>

#include <filesystem>
#include <system_error>

#include "common/Execute.h"
#include "common/TemporaryFolder.h"
#include "fuzz/InProcess.h"

namespace os {

void execute(const std::string& command, std::chrono::milliseconds, const common::StopSignal*) {
    fuzz::executeInProcess(command);
}

}  // namespace os

namespace common {

// In the folder for files of inputs, and without a child that removes it should this process be killed.
TemporaryFolder::TemporaryFolder(const std::string& name) {
    std::string path = std::filesystem::temp_directory_path() / (name + "-XXXXXX");
    child_ = 0;
    if (::mkdtemp(path.data()) != nullptr) path_ = path;
}

TemporaryFolder::~TemporaryFolder() { remove(); }

void TemporaryFolder::remove() const {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

}  // namespace common
