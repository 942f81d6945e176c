#include "CatalogueFile.h"

#include <filesystem>
#include <fstream>
#include <vector>

#include "Failure.h"

namespace zavctl {

namespace {

namespace fs = std::filesystem;

constexpr char homeEntry[] = "CMAKE_HOME_DIRECTORY:INTERNAL=";

constexpr char inSourceTree[] = "services/property-service/catalogue.json";
constexpr char belowPrefix[] = "share/zav/catalogue.json";

// The source tree of a build tree outside of it; empty if the folder is not a build tree.
std::string sourceTreeOf(const fs::path& folder) {
    std::ifstream cache(folder / "CMakeCache.txt");
    std::string line;
    while (std::getline(cache, line)) {
        if (line.rfind(homeEntry, 0) == 0) return line.substr(sizeof homeEntry - 1);
    }
    return {};
}

}  // namespace

std::string defaultCatalogue() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    for (fs::path folder = program.parent_path(); folder.has_relative_path(); folder = folder.parent_path()) {
        // A tree may have moved since it was configured, and a program since it was installed.
        std::vector<fs::path> candidates{folder / inSourceTree, folder / belowPrefix};
        if (const std::string source = sourceTreeOf(folder); !source.empty())
            candidates.push_back(fs::path(source) / inSourceTree);
        for (const fs::path& catalogue : candidates) {
            if (fs::exists(catalogue, error)) return catalogue.string();
        }
    }
    if (fs::exists(ZAV_CATALOGUE, error)) return ZAV_CATALOGUE;
    throw Failure(ExitCode::failed, "no-catalogue",
                  std::string(ZAV_CATALOGUE) +
                      ": does not exist; name the phone's catalogue with --catalogue FILE, or install the catalogue");
}

}  // namespace zavctl
