// Reads json.txt, which describes its own form.
#pragma once

#include <fstream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace data {

struct JsonDocument {
    bool accepted = false;
    std::string text;
    std::string line;  // as it stands in the file
};

inline void PrintTo(const JsonDocument& document, std::ostream* stream) { *stream << document.line; }

inline std::vector<JsonDocument> jsonDocuments(const std::string& path) {
    std::ifstream file(path);
    std::vector<JsonDocument> documents;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        JsonDocument document{line.compare(0, 6, "accept") == 0, "", line};
        if (!document.accepted && line.compare(0, 6, "refuse") != 0) throw std::runtime_error(path + ": " + line);
        for (std::size_t at = 7; at < line.size(); ++at) {
            if (line[at] == '%') {
                document.text += static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16));
                at += 2;
            } else {
                document.text += line[at];
            }
        }
        documents.push_back(document);
    }
    if (documents.size() < 150) throw std::runtime_error(path + " cannot be read");
    return documents;
}

}  // namespace data
