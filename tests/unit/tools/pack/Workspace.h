// A folder of its own for a test, with a key beside what is published.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "pack/Container.h"
#include "pack/Error.h"

namespace pack {

inline const std::string plainXml =
    "<provisioning version=\"1.1\" productID=\"kd4v\">\n  <nvm><param name=\"a\" "
    "value=\"b\"/></nvm>\n</provisioning>\n";

class Workspace : public testing::Test {
 protected:
    Workspace() {
        std::string pattern = "/tmp/pack-XXXXXX";
        root = ::mkdtemp(pattern.data());
        std::filesystem::create_directory(root + "/in");
        write("key", "correct horse\n");
    }
    ~Workspace() override { std::filesystem::remove_all(root); }

    void write(const std::string& name, const std::string& bytes) const {
        std::filesystem::create_directories(std::filesystem::path(root + "/" + name).parent_path());
        std::ofstream(root + "/" + name, std::ios::binary) << bytes;
    }
    std::string read(const std::string& name) const {
        std::ifstream file(root + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string decrypted(const std::string& name) const {
        return decrypt(read(name), passPhrase).value_or("(not encrypted with this key)");
    }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(root + "/" + name));
    }

    /// Everything below a folder: name and bytes, or the kind of what is not a file.
    std::map<std::string, std::string> tree(const std::string& folder) const {
        std::map<std::string, std::string> found;
        if (!exists(folder)) return found;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root + "/" + folder)) {
            const std::string name = entry.path().lexically_relative(root + "/" + folder).string();
            found[name] = entry.is_regular_file() ? read(folder + "/" + name) : "(not a file)";
        }
        return found;
    }

    /// The text of the Error that this throws.
    template <typename Function>
    static std::string errorOf(Function function) {
        try {
            function();
        } catch (const Error& error) {
            return error.what();
        }
        return "(no error)";
    }

    const std::string passPhrase = "correct horse";
    std::string root;
};

}  // namespace pack
