// One provisioning pass as data: see README.md for the format.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace flow {

struct Answer {
    std::string path;
    int status = 200;
    std::string encryption;  // "", "encrypted", "encrypted with another key"
    std::string body;
};

struct Row {
    std::string description;
    std::vector<std::pair<std::string, std::string>> properties;
    std::string requestUrl;
    std::vector<Answer> server;
    std::vector<std::string> log;
    std::vector<std::string> writes;
    std::string status;
    std::string document;
    std::string refused;
};

/// Reads the row and replaces variables by their values. Throws std::runtime_error if the file is not a row.
Row readRow(const std::string& file, const std::vector<std::pair<std::string, std::string>>& variables);

/// The row files of the folder, sorted.
std::vector<std::string> rowFiles(const std::string& folder);

}  // namespace flow
