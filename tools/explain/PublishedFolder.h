// A folder that stands for that of the provisioning server: answers the URLs below a base URL with its files, and all
// others with 404, "not published here". Immutable; any thread.
#pragma once

#include <string>

#include "http/Curl.h"
#include "http/UrlInfo.h"

namespace explain {

class PublishedFolder {
 public:
    /// `source` is the folder, which stands for that of `base`; or the file that answers `initial`, the URL of the
    /// initial file. Then the folder is that file's own; or the one above that stands for `base`, if the file is where
    /// the URL says. Throws ExplainException if `source` is neither.
    PublishedFolder(const std::string& source, const zav::UrlInfo& initial, const zav::UrlInfo& base);

    zav::LocalAnswer answer(const std::string& url) const;

    /// Whether the URL is one of another server, of which the folder says nothing.
    bool isElsewhere(const std::string& url) const;

    const std::string& folder() const { return folder_; }  // ends in "/"
    /// The URL that the folder stands for; ends in "/".
    std::string url() const;

 private:
    void findFolderOf(const std::string& file);

    const zav::UrlInfo initial_;
    zav::UrlInfo base_;
    std::string folder_;  // ends in "/"
    std::string initialFile_;
};

}  // namespace explain
