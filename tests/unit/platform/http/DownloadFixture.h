// Fixture of the download tests: a server, a downloader, and a folder of its own for each test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fakes/FakeProperties.h"
#include "fakes/HttpServer.h"
#include "http/Curl.h"
#include "http/FileDownloader.h"
#include "security/Security.h"

namespace download {

// libcurl's result codes.
constexpr int ok = 0;
constexpr int unsupportedProtocol = 1;
constexpr int malformedUrl = 3;
constexpr int hostNotFound = 6;
constexpr int couldNotConnect = 7;
constexpr int invalidResponse = 8;
constexpr int partialFile = 18;
constexpr int writeError = 23;
constexpr int outOfMemory = 27;
constexpr int timedOut = 28;
constexpr int rangeError = 33;
constexpr int tlsFailed = 35;
constexpr int stopped = 42;
constexpr int tooManyRedirects = 47;
constexpr int noResponse = 52;
constexpr int receiveError = 56;
constexpr int peerNotVerified = 60;
constexpr int badCoding = 61;
constexpr int tooLarge = 63;

inline const std::string phoneBundle = "/custom/certs/ca-bundle.pem";

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return "<no file>";
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

/// For large files: a failed comparison of their contents would print them.
inline bool holds(const std::string& path, const std::string& content) { return contentOf(path) == content; }

inline std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
}

/// A response whose body ends with the connection.
inline fakes::HttpAnswer withoutLength(const std::string& body, std::optional<fakes::Ending> ending = std::nullopt) {
    fakes::HttpAnswer answer = fakes::HttpAnswer::ok(body);
    answer.withoutLength = true;
    answer.ending = ending;
    return answer;
}

class Fixture : public testing::Test {
 protected:
    explicit Fixture(zav::CurlSettings settings = {}) : curl(std::make_shared<zav::Curl>(std::move(settings))) {
        std::filesystem::create_directories(folder);
    }
    ~Fixture() override {
        std::filesystem::remove_all(folder);
        std::filesystem::remove(phoneBundle);
    }

    /// Makes `bundle`, PEM, the phone's own bundle.
    void trust(const std::string& bundle) {
        writeFile(phoneBundle, bundle);
        security.reloadCertificates();
    }

    /// Downloads `path` of the server to `target`.
    int fetch(const std::string& path) { return downloader.downloadFile(server.url(path), target); }
    int fetch(const std::string& url, const std::string& destination) {
        return downloader.downloadFile(url, destination);
    }

    const std::string folder =
        std::string("/var/volatile/provisioning/") + testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string target = folder + "/file.xml";
    fakes::HttpServer server;
    std::shared_ptr<fakes::FakeProperties> properties =
        std::make_shared<fakes::FakeProperties>(fakes::FakeProperties::Values{
            {"System.Provision.ProvisioningServer", ""},
            {"System.Provision.FactoryAuthUsername", "factory"},
            {"System.Provision.FactoryAuthPassword", "secret"},
            {"System.General.DeviceID", "kd4v"},
            {"NET.MAC.Address", "00:1A:2B:3C:4D:5E"},
        });
    zav::Security security{properties};
    const std::shared_ptr<zav::Curl> curl;
    zav::FileDownloader downloader{curl, security, properties};
};

}  // namespace download
