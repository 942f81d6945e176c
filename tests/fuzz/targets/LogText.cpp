// Text from outside in a line of the log: it cannot forge another line.
#include <algorithm>

#include "common/Quote.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "propertyprotocol/Utf8.h"
#include "service/PropertyService.h"

namespace fuzz {

namespace {

bool isHarmless(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

}  // namespace

void log_text(const std::string& input) {
    const std::string escaped = dbg::escapeControls(input);
    promise(isHarmless(escaped), "escaped text has no control bytes");
    promise(escaped == input || !isHarmless(input), "harmless text stays as it is");
    promise(quote(input) == "'" + escaped + "'", "quoted text is escaped");
    if (!propertyprotocol::isUtf8WithoutNul(input)) return;
    for (const std::size_t length : {1U, 40U}) {
        const std::string shown = propertyservice::excerpt(input, length);
        promise(propertyprotocol::isUtf8(shown), "an excerpt of UTF-8 is UTF-8");
        promise(shown.size() <= std::string("\\u0080").size() * length + 3, "an excerpt is not longer than asked for");
    }
}

}  // namespace fuzz
