#include "BaseUrl.h"

#include <string_view>

namespace zavctl {

namespace {

constexpr std::string_view fileSuffix = ".xml";

}  // namespace

std::string folderUrl(const std::string& given) {
    const bool isFile =
        given.size() >= fileSuffix.size() &&
        given.compare(given.size() - fileSuffix.size(), fileSuffix.size(), fileSuffix.data(), fileSuffix.size()) == 0;
    return given.empty() || given.back() == '/' || isFile ? given : given + "/";
}

}  // namespace zavctl
