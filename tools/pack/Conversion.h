// What pack and unpack share: they list a folder, examine each file, refuse everything or write what differs. Base
// class; what becomes of a file is the derived class's. Used by one thread; `examine` and `converted` are called from
// several.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pack/Files.h"
#include "pack/Key.h"
#include "pack/Output.h"
#include "pack/Pack.h"

namespace pack {

class Conversion {
 public:
    Conversion(const Conversion&) = delete;
    Conversion& operator=(const Conversion&) = delete;

 protected:
    enum class Action { none, convert, copy };

    // In this order a phone that asks meanwhile never finds an initial file whose references are not there yet.
    enum class Rank { copied, jobFile, initial };

    struct Step {
        Action action = Action::none;
        Rank rank = Rank::copied;
        FileState state;  // when it was examined
        std::vector<Finding> findings;
    };

    /// Checks the folders and reads the key. `converted` is the member of Result that names the converted files.
    Conversion(const Options& options, Access access, std::vector<std::string> Result::*converted);
    ~Conversion() = default;

    /// Decides what becomes of a file. An Error that it throws becomes a finding.
    virtual void examine(const std::string& name, Step& step) const = 0;
    /// The bytes that are written in place of the file's own.
    virtual std::string converted(const std::string& name, const Step& step) const = 0;

    void list();
    /// False if a finding keeps everything from being written.
    bool examineAll();
    void write();

    std::string sourceOf(const std::string& name) const { return options_.from + "/" + name; }
    std::string targetOf(const std::string& name) const { return options_.to + "/" + name; }

    const Options& options_;
    Key key_;
    std::vector<std::string> files_;
    Result result_;

 private:
    Step examined(const std::string& name) const;
    void count();
    Staged stage(Output& output, std::size_t index) const;
    void show(std::size_t done, std::size_t total) const;

    const Access access_;
    std::vector<std::string> Result::*const convertedFiles_;
    std::vector<Step> steps_;  // one a file
};

}  // namespace pack
