// A folder of published files, and what explain says about them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "explain/Explain.h"

namespace explain {

using Kind = Event::Kind;

inline const std::string mac = "02:00:5E:10:00:01";
inline const std::string server = "https://server.example/phones/";

inline std::string document(const std::string& root, const std::string& version, const std::string& inside) {
    return "<" + root + " version='" + version + "' productID='kd4v'>" + inside + "</" + root + ">";
}

inline std::string direct(const std::string& inside) { return document("provisioning", "1.1", inside); }

class ExplainTest : public testing::Test {
 protected:
    ExplainTest() {
        std::string pattern = "/tmp/published-XXXXXX";
        folder = mkdtemp(pattern.data());
        request.source = folder;
        request.catalogue = CATALOGUE;
        request.properties = {{"NET.MAC.Address", mac}, {"System.Provision.ProvisioningServer", server}};
    }
    ~ExplainTest() override { std::filesystem::remove_all(folder); }

    void publish(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(folder + "/" + name).parent_path());
        std::ofstream(folder + "/" + name, std::ios::binary) << content;
    }

    /// Explains the folder with this initial file.
    Explanation explained(const std::string& initialFile) const {
        publish("provisioning.xml", initialFile);
        return explain(request);
    }

    /// "SUBJECT|BEFORE|VALUE|REASON" of the events of one kind.
    static std::vector<std::string> events(const Explanation& explanation, Kind kind) {
        std::vector<std::string> found;
        for (const Event& event : explanation.events) {
            if (event.kind != kind) continue;
            found.push_back(event.subject + "|" + event.before + "|" + event.value + "|" + event.reason);
        }
        return found;
    }

    static std::string contentOf(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::string folder;
    Request request;
};

}  // namespace explain
