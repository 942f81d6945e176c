// One call of downloadFile: its attempts, the redirects and credentials of each, and what they have in common. Lives
// for that call, on its thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "PartialFile.h"
#include "Transfer.h"
#include "http/Curl.h"
#include "http/UrlInfo.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"

namespace zav {

/// Whether the text is an http or https URL.
bool isWeb(const std::string& url);

class Download {
 public:
    /// Throws std::system_error when the destination cannot be written.
    Download(Curl& curl, const Security& security, const std::shared_ptr<propertyapi::IPropertyApi>& properties,
             const UrlInfo& source, const std::string& destination);
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    /// Returns a libcurl result code. A firmware transfer that breaks off is tried again: from where it broke if the
    /// server lets the file be known again, else from its start. Throws what the file and the URLs of redirects throw.
    int run();

 private:
    // Where an attempt has got to.
    struct Hop {
        explicit Hop(const UrlInfo& from) : url(from) {}

        UrlInfo url;
        unsigned redirects = 0;
        bool moved = false;  // has left the server or the protocol where it began
        std::optional<Credentials> credentials;
        unsigned long schemes = 0;
    };

    int attempt();
    bool mayRetry(int result) const;
    bool waitForRetry(std::chrono::seconds pause);
    bool keepsPace() const;
    void follow(Hop& hop, const UrlInfo& next) const;
    bool findCredentials(Hop& hop, unsigned long offered) const;
    void explain(int result) const;
    void note(const Transfer& transfer);

    // Constant after construction.
    Curl& curl_;
    const Curl::State& client_;
    const Security& security_;
    const std::shared_ptr<propertyapi::IPropertyApi>& properties_;
    const UrlInfo& source_;
    const bool firmware_;

    PartialFile file_;
    TransferOrder order_;
    long status_ = 0;
    bool begun_ = false;   // a server has answered with the file
    bool misfit_ = false;  // the last answer did not continue what the file holds
    ResumePoint reached_;  // by what the file holds; a later attempt may go on from there
};

}  // namespace zav
