// The files that each row of a table gets: a folder, or a single file whose place below the output folder is given
// apart. Paths and texts may have placeholders. A file without any in its path is the same for all rows.
#pragma once

#include <string>
#include <vector>

#include "pack/FileKind.h"
#include "pack/Key.h"
#include "pack/Pattern.h"

namespace pack {

struct TemplateFile {
    std::string source;  // path, for error texts
    std::string place;   // path below the output folder, with its placeholders
    Pattern path;
    Pattern content;
    FileKind kind = FileKind::other;
    bool isInitial = false;  // an initial file, which is published behind the files that it names
    bool isXml = false;      // values are escaped in it
};

/// `place` is where a single file goes; "" stands for the file's own name, and is the only choice for a folder. Throws
/// Error for whatever makes the template useless for every row, and for a copy of the key, which must not be published.
std::vector<TemplateFile> readTemplate(const std::string& path, const std::string& place,
                                       const std::vector<std::string>& columns, const Key& key);

}  // namespace pack
