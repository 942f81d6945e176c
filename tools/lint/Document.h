// A provisioning file as the daemon reads it: loaded by its reader, walked by its parser. Records what the walk did.
//
// Elements have indices in document order; 0 is the root. Attributes and names are as the daemon sees them, without
// namespace prefixes. One thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Core/JobHandlers/JobDescription.h"
#include "xml/XMLReader.h"

namespace lint {

constexpr std::size_t none = static_cast<std::size_t>(-1);

/// A level of the walk: the children of one element.
struct WalkLevel {
    std::size_t parent = none;        // none for the root's own level
    std::vector<std::size_t> leaves;  // elements without content
    std::vector<std::size_t> items;   // those with attributes
    std::size_t foreign = none;  // the element behind which a processing instruction or CDATA stands; or the parent
    bool isMixed = false;        // dropped for different names
    std::size_t job = none;      // in jobs()
};

class Document final : public zav::XMLReader {
 public:
    /// Parses with the daemon's limits. On failure `failure()` has the reason.
    bool parse(const std::string& bytes);

    /// The daemon's walk. Sets jobs and levels.
    void walk();
    const std::vector<zav::JobDescription>& jobs() const { return jobs_; }
    const std::vector<WalkLevel>& levels() const { return levels_; }
    /// The walk ended early, or found too many items: there are no jobs.
    bool exceedsLimits() const { return exceedsLimits_; }
    std::size_t itemCount() const { return itemCount_; }

    /// The document's encoding as declared or detected; "" for UTF-8.
    std::string foreignEncoding() const;

    std::size_t elementCount() const { return nodes_.size(); }
    std::string nameOf(std::size_t element) const;
    std::size_t parentOf(std::size_t element) const;
    /// How often the walk came to it.
    unsigned visitsOf(std::size_t element) const { return visits_[element]; }
    bool hasContent(std::size_t element) const;
    bool hasElements(std::size_t element) const;
    /// Whether there is more than white space directly inside.
    bool hasText(std::size_t element) const;
    zav::Attributes attributesOf(std::size_t element) const;
    long lineOf(std::size_t element) const;

    // What the parser calls.
    bool firstChild() override;
    bool hasChildren() override;
    std::map<std::string, std::string> attributes() override;
    void restorePosition() override;

 private:
    class Parser;

    void listElements();
    std::size_t indexOfCurrent() const;
    void matchJobs();

    std::vector<const zav::xml::Tree::Node*> nodes_;  // the elements
    std::vector<std::size_t> parents_;
    std::vector<unsigned> visits_;
    std::vector<zav::JobDescription> jobs_;
    std::vector<WalkLevel> open_;
    std::vector<WalkLevel> levels_;  // in the order in which they ended
    std::size_t itemCount_ = 0;
    bool exceedsLimits_ = false;
};

/// The text of a document in UTF-8. `declared` is Document's foreignEncoding().
std::string toUtf8(const std::string& bytes, const std::string& declared);

}  // namespace lint
