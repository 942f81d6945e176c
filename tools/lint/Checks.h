// What the checks of a document share: the document, the options, and the list of findings. The checks themselves are
// functions, each in a source of its own, that add findings.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lint/Document.h"
#include "lint/Inspection.h"
#include "lint/Remedies.h"
#include "lint/Rules.h"

namespace lint {

/// Where something is wrong: an element's name, or one of its attributes.
struct Place {
    std::size_t element = none;  // none: the file as a whole
    std::string attribute = {};  // empty: the element's name
    bool isValue = true;         // of the attribute; false: its name
    bool isForeign = false;      // the processing instruction or CDATA behind the element
};

inline Place valueOf(std::size_t element, const std::string& attribute) { return {element, attribute, true, false}; }
inline Place nameOf(std::size_t element, const std::string& attribute) { return {element, attribute, false, false}; }

struct Mistake {
    RuleId rule;
    Place place;
    std::string message;
    std::string fix;            // empty: the rule's
    std::size_t before = none;  // the element that the message refers to; its line is added
};

struct Link {
    Reference::Kind kind;
    std::string url;
    bool isFetched;
    Place place;
};

class Checks {
 public:
    Checks(Document& checked, const Options& given, const Circumstances& around)
        : document(checked), options(given), circumstances(around) {}

    void add(RuleId rule, Place place, std::string message, std::string fix = "", std::size_t before = none) {
        if (mistakes.size() < options.findingsPerFile) {
            mistakes.push_back({rule, std::move(place), std::move(message), std::move(fix), before});
        }
    }

    Document& document;
    const Options& options;
    const Circumstances& circumstances;
    Role role = Role::byRoot;
    std::string version;  // of the root; empty if the file is refused
    bool isEncrypted = false;
    std::vector<Mistake> mistakes;
    std::vector<Link> links;
    std::map<std::string, std::string> locks;  // of function keys, by index, as the pass goes on
};

/// A job, and the elements of its items.
struct Job {
    const zav::JobDescription& description;
    const WalkLevel& level;
};

/// Root and its attributes. Sets role and version.
void checkRoot(Checks& checks);
/// What the walk loses, repeats or drops.
void checkShape(Checks& checks);
/// Attributes that the phone does not know.
void checkAttributes(Checks& checks);
/// The jobs: allowed or not, and what is in them.
void checkJobs(Checks& checks);
void checkCategories(Checks& checks, const Job& job);
void checkFiles(Checks& checks, const Job& job);
void checkFirmware(Checks& checks, const Job& job);
void checkSteps(Checks& checks, const Job& job);
void checkSettings(Checks& checks, const Job& job);

/// What a URL is for.
enum class UrlUse { jobFile, published, redirect, certificate, firmware, phoneBook, server };

/// A URL in an attribute; also records the link. `isFetched` as of Reference. False if the phone does not accept it.
bool checkUrl(Checks& checks, std::size_t element, const std::string& attribute, const std::string& url, UrlUse use,
              bool isFetched = true);

/// What the phone makes of a provisioning period; empty if it takes it as it is.
std::string periodEffect(const std::string& period);

/// Whether another attribute was probably meant for the wanted one: checkAttributes reports it, and nobody else needs
/// to.
bool isMisspelt(const zav::Attributes& attributes, const std::string& wanted, const std::vector<std::string>& known);

/// The item's attribute; if it has none, adds a finding and returns null.
const std::string* needed(Checks& checks, const zav::Attributes& item, std::size_t element, const char* attribute);

/// Element names of the format: those of jobs and those of items.
const std::vector<std::string>& jobNames();
const std::vector<std::string>& itemNames();
/// Of the document element.
const std::vector<std::string>& rootAttributes();
/// Attributes that an element of this name may have as an item; empty for other elements.
const std::vector<std::string>& attributesOfItem(const std::string& itemName);

}  // namespace lint
