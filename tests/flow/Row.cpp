#include "flow/Row.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace flow {

namespace {

std::string replaced(std::string text, const std::vector<std::pair<std::string, std::string>>& variables) {
    for (const auto& [name, value] : variables) {
        for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

// KEY = VALUE; the value may be empty and may contain spaces.
std::pair<std::string, std::string> pairOf(const std::string& line) {
    const auto sign = line.find(" =");
    if (sign == std::string::npos) throw std::runtime_error("not KEY = VALUE: " + line);
    return {line.substr(0, sign), line.size() > sign + 3 ? line.substr(sign + 3) : ""};
}

void addServerLine(std::vector<Answer>& server, const std::string& line) {
    if (line.compare(0, 4, "    ") == 0) {
        if (server.empty()) throw std::runtime_error("a body without an answer: " + line);
        server.back().body += line.substr(4) + "\n";
        return;
    }
    Answer answer;
    std::istringstream words(line);
    words >> answer.path >> answer.status;
    if (!words || answer.path.front() != '/') throw std::runtime_error("not /path STATUS: " + line);
    std::getline(words >> std::ws, answer.encryption);
    server.push_back(answer);
}

void addLine(Row& row, const std::string& section, const std::string& line) {
    if (section.empty()) {
        row.description += line + "\n";
    } else if (section == "properties") {
        row.properties.push_back(pairOf(line));
    } else if (section == "request") {
        row.requestUrl = pairOf(line).second;
    } else if (section == "server") {
        addServerLine(row.server, line);
    } else if (section == "log") {
        row.log.push_back(line);
    } else if (section == "writes") {
        row.writes.push_back(line);
    } else if (section == "status") {
        (row.status.empty() ? row.status : row.document) += line;
    } else if (section == "refused") {
        row.refused += line;
    } else {
        throw std::runtime_error("unknown section: " + section);
    }
}

}  // namespace

Row readRow(const std::string& file, const std::vector<std::pair<std::string, std::string>>& variables) {
    std::ifstream stream(file);
    if (!stream) throw std::runtime_error("cannot read " + file);
    Row row;
    std::string section;
    for (std::string line; std::getline(stream, line);) {
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
        } else {
            addLine(row, section, replaced(line, variables));
        }
    }
    if (row.description.empty()) throw std::runtime_error(file + " has no description");
    return row;
}

std::vector<std::string> rowFiles(const std::string& folder) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".txt") files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace flow
