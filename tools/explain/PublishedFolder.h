// A folder that stands for that of the provisioning server: answers the URLs below the server's folder with its files,
// and all others with 404, "not published here".
#pragma once

#include <string>

#include "http/Curl.h"
#include "http/UrlInfo.h"

namespace explain {

class PublishedFolder {
 public:
    /// `source` is the folder, or the file that answers `initial`, the URL of the initial file; its folder then answers
    /// the others. Throws ExplainException if it is neither.
    PublishedFolder(const std::string& source, const zav::UrlInfo& initial);

    /// Any thread.
    zav::LocalAnswer answer(const std::string& url) const;

    /// Whether the URL is one of another server, of which the folder says nothing.
    bool isElsewhere(const std::string& url) const;

 private:
    const zav::UrlInfo initial_;
    std::string folder_;  // ends in "/"
    std::string initialFile_;
};

}  // namespace explain
