#include "Topics.h"

#include <algorithm>

namespace unixbus {

namespace {

/// Refuses what cannot be text: NUL, and bytes that occur in no UTF-8.
bool isText(const std::string& text) {
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        if (value == 0 || value == 0xc0 || value == 0xc1 || value > 0xf4) return false;
    }
    return !text.empty() && text.size() <= 65535;
}

}  // namespace

bool isTopic(const std::string& topic) { return isText(topic) && topic.find_first_of("+#") == std::string::npos; }

bool isFilter(const std::string& filter) {
    if (!isText(filter)) return false;
    for (std::size_t place = 0; place < filter.size(); ++place) {
        const bool begins = place == 0 || filter[place - 1] == '/';
        const bool ends = place + 1 == filter.size();
        if (filter[place] == '#' && !(begins && ends)) return false;
        if (filter[place] == '+' && !(begins && (ends || filter[place + 1] == '/'))) return false;
    }
    return true;
}

bool matches(const std::string& filter, const std::string& topic) {
    std::size_t f = 0;
    std::size_t t = 0;
    for (;;) {
        if (filter.compare(f, std::string::npos, "#") == 0) return true;
        const std::size_t filterEnd = std::min(filter.find('/', f), filter.size());
        const std::size_t topicEnd = std::min(topic.find('/', t), topic.size());
        const std::string level = filter.substr(f, filterEnd - f);
        if (level != "+" && level != topic.substr(t, topicEnd - t)) return false;
        // "a/#" matches "a" too.
        if (topicEnd == topic.size()) {
            return filterEnd == filter.size() || filter.compare(filterEnd, std::string::npos, "/#") == 0;
        }
        if (filterEnd == filter.size()) return false;
        f = filterEnd + 1;
        t = topicEnd + 1;
    }
}

}  // namespace unixbus
