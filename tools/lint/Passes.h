// The passes that a set of files makes: inspects each file, then follows what the initial files refer to.
#pragma once

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "lint/Inspection.h"
#include "lint/Lint.h"
#include "lint/Rules.h"
#include "lint/Site.h"

namespace lint {

class Passes {
 public:
    /// `options` must outlive this object.
    Passes(const std::vector<std::string>& files, const Options& options);

    /// Call once. Blocks for reading, and for downloads.
    Report report();

 private:
    /// Role, version of the pass, whether it travels readable.
    using Way = std::tuple<Role, std::string, bool>;

    struct File {
        std::string readError;
        std::map<Way, Inspection> ways;  // how the phone comes to it
        std::vector<Finding> further;    // about what it refers to
    };

    /// What a pass has used up, and the files that lead to the current one.
    struct Pass {
        std::vector<std::string> trail;
        unsigned files = 0;
        std::size_t items = 0;
        bool isOverFiles = false;
        bool isOverItems = false;
    };

    void inspectNamedFiles();
    bool isInitial(const std::string& name);
    Inspection inspectFile(const std::string& name, const Circumstances& circumstances, std::string& error) const;
    Content read(const std::string& name) const;
    const Inspection* inspectionOf(const std::string& name, const Circumstances& circumstances);
    void runPass(const std::string& initial);
    void follow(const std::string& name, const Inspection& inspection, const Site& site, const std::string& version,
                Pass& pass);
    void followOne(const std::string& name, const Reference& reference, const Site& site, const std::string& version,
                   Pass& pass);
    void checkOther(const std::string& name, const Reference& reference, const Target& target);
    void addFurther(const std::string& name, RuleId rule, const Reference& reference, const std::string& message);
    void checkName(const std::string& name);
    void collect(const std::string& name, const File& file, Report& report) const;

    const Options& options_;
    std::vector<std::string> named_;  // to lint, not only in another file; each once
    std::map<std::string, File> files_;
    std::vector<std::string> order_;      // named files first, then others as they are found
    std::set<std::string> otherFiles_;    // certificates, phone books and images
    std::set<std::string> reached_;       // from an initial file, those included
    std::set<std::string> referredTo_;    // by another file
    std::set<std::string> redirectedTo_;  // likewise, as the initial file of a pass of their own
};

/// Whether a file of this name, path or URL, reaches the phone over plain http.
bool travelsReadable(const std::string& name, const Options& options);

}  // namespace lint
