#include "pack/Checks.h"

#include <algorithm>
#include <filesystem>

#include "pack/Error.h"

namespace pack {

namespace {

namespace fs = std::filesystem;

fs::path resolved(const std::string& path) {
    if (path.empty()) throw Error("an empty path names no file");
    std::error_code error;
    fs::path result = fs::weakly_canonical(fs::absolute(path), error);
    if (error) throw Error(path, "cannot be examined: " + error.message());
    if (!result.has_filename()) result = result.parent_path();  // it ended in "/"
    return result;
}

bool isInside(const fs::path& path, const fs::path& folder) {
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

// A folder that is mounted in two places has two paths.
bool isSameFolder(const fs::path& one, const fs::path& other) {
    std::error_code error;
    return fs::equivalent(one, other, error) && !error;
}

bool isBelow(fs::path path, const fs::path& folder) {
    if (isInside(path, folder)) return true;
    for (;; path = path.parent_path()) {
        if (isSameFolder(path, folder)) return true;
        if (path == path.parent_path()) return false;
    }
}

}  // namespace

void checkFolders(const std::string& from, const std::string& to, const std::string& keyFile) {
    const fs::path source = resolved(from);
    const fs::path target = resolved(to);
    if (source == target || isSameFolder(source, target)) {
        throw Error(to, "is the folder that is read; the output needs a folder of its own");
    }
    if (isBelow(target, source)) throw Error(to, "is inside " + from + "; the output needs a folder outside");
    if (isBelow(source, target)) throw Error(from, "is inside " + to + "; the output needs a folder of its own");
    checkOutsideOf(from, {keyFile});
    checkOutsideOf(to, {keyFile});
}

void checkOutsideOf(const std::string& to, const std::vector<std::string>& files) {
    const fs::path folder = resolved(to);
    for (const std::string& file : files) {
        if (isBelow(resolved(file), folder)) {
            throw Error(file, "is inside " + to + "; keep it where nothing is published");
        }
    }
}

std::string problemOfName(const std::string& name) {
    constexpr std::size_t maxNameBytes = 255;
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string step = name.substr(begin, end - begin);
        if (step.empty() || step.front() == '.') return "a step of the path is empty or begins with \".\": " + name;
        if (step.size() > maxNameBytes) return "a name of more than 255 bytes: " + name;
        begin = end + 1;
    }
    return "";
}

}  // namespace pack
