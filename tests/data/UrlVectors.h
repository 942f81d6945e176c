// Reads urls.txt, which describes its own form.
#pragma once

#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace data {

struct UrlVector {
    bool ok = false;
    std::string url, scheme, host, port, path, file, query, userInfo, shown;
};

inline void PrintTo(const UrlVector& vector, std::ostream* stream) { *stream << vector.url; }

inline std::string unescaped(const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.compare(at, 2, "\\x") == 0) {
            plain += static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16));
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return text == "-" ? "" : plain;
}

inline std::vector<UrlVector> urlVectors(const std::string& path) {
    std::ifstream file(path);
    std::vector<UrlVector> vectors;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream text(line);
        std::vector<std::string> words;
        for (std::string word; text >> word;) words.push_back(unescaped(word));
        UrlVector vector;
        vector.ok = words.at(0) == "ok";
        if (words.size() != (vector.ok ? 10U : 3U)) throw std::runtime_error(path + ": " + line);
        vector.url = words[1];
        vector.shown = words.back() == "=" ? vector.url : words.back();
        if (vector.ok) {
            vector.scheme = words[2];
            vector.host = words[3];
            vector.port = words[4];
            vector.path = words[5];
            vector.file = words[6];
            vector.query = words[7];
            vector.userInfo = words[8];
        }
        vectors.push_back(vector);
    }
    if (vectors.size() < 100) throw std::runtime_error(path + " cannot be read");
    return vectors;
}

}  // namespace data
