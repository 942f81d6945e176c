// Runs a provisioning pass against a phone in memory, and reports what the phone would do and why.
//
// It is the daemon's own pass: worker, parser, handlers and log lines, over the property service's own handling of
// requests. Nothing is stored: files go to a temporary folder, no script of the phone is executed, and its clean-up
// before a firmware download counts as successful.
//
// Use it from one thread, and let no other thread use the daemon's code meanwhile: the root of paths, the log and the
// observer belong to the process.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "debug/Debug.h"

namespace explain {

/// The explanation cannot begin: the source is neither a folder nor a file, or there is no temporary folder.
class ExplainException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

struct Request {
    /// A folder that stands for that of the configured server, a file that stands for the initial file in its folder,
    /// or the URL of an initial file, which is downloaded.
    std::string source;
    /// The URL that the folder stands for, or the file's folder. Empty: the configured server's folder, up to the first
    /// placeholder of its URL.
    std::string base;
    /// Values of the phone. All others are the catalogue's defaults.
    std::map<std::string, std::string> properties;
    std::string catalogue;  // path
    std::string keyFile;    // path of the pass phrase; empty: none
    bool showSecrets = false;
};

/// What happened, in order.
struct Event {
    enum class Kind {
        file,      // subject: URL; value: where it is; reason: HTTP status
        dropped,   // subject: job or file; reason
        started,   // subject: job; value: handler
        ended,     // subject: job; value: result
        chosen,    // subject: job; value: URL; reason: version, or why there is none
        written,   // subject: key; before, value; reason: source
        refused,   // subject: name; value; reason
        firmware,  // subject: offered version; before: running version; value: what happens; reason
        log,       // subject: level; value: text of a warning or error
        advice,    // value: what to do about the event before
    };
    /// The reason of a refused setting without a name or a value, whose text is then empty.
    static constexpr char missingAttribute[] = "the item has no value, or no name";
    Kind kind;
    unsigned depth;  // of nested jobs
    std::string subject;
    std::string before;
    std::string value;
    std::string reason;
};

struct Explanation {
    std::string url;                 // of the initial file; empty if the phone has no server
    std::vector<std::string> notes;  // what the explanation assumes
    std::vector<Event> events;
    std::vector<dbg::LogLine> log;  // as the daemon would write it during the pass
    std::string status;             // "success", "partSuccess" or "fail"; empty: no pass ran
    std::string httpCode;
};

/// Blocks for the pass. Throws ExplainException, and CatalogueException if the catalogue is invalid.
Explanation explain(const Request& request);

}  // namespace explain
