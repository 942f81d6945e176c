#include "pack/Template.h"

#include <filesystem>
#include <regex>

#include "pack/Error.h"
#include "pack/Files.h"
#include "propertyprotocol/Utf8.h"

namespace pack {

namespace {

namespace fs = std::filesystem;

// Values are UTF-8, so a document in another encoding would mix two.
void checkEncoding(const std::string& source, const std::string& bytes) {
    if (!propertyprotocol::isUtf8WithoutNul(bytes)) throw Error(source, "must be UTF-8, because values are inserted");
    const std::size_t end = bytes.compare(0, 5, "<?xml") == 0 ? bytes.find("?>") : std::string::npos;
    if (end == std::string::npos) return;
    static const std::regex encoding("encoding\\s*=\\s*[\"']([^\"']*)[\"']");
    static const std::regex utf8("utf-8", std::regex::icase);
    std::smatch match;
    const std::string declaration = bytes.substr(0, end);
    if (std::regex_search(declaration, match, encoding) && !std::regex_match(match[1].str(), utf8)) {
        throw Error(source, "declares the encoding " + printable(match[1].str()) +
                                "; it must be UTF-8, because values are inserted");
    }
}

TemplateFile readOne(const std::string& source, const std::string& place, const std::vector<std::string>& columns,
                     const Key& key) {
    const std::string bytes = readFile(source, maxProvisioningFileBytes);
    if (isKey(bytes, key))
        throw Error(source, "holds the key of the phones, which must not be published; move it elsewhere");
    const Classification kind = classify(place, bytes);
    if (!kind.problem.empty()) throw Error(source, kind.problem);
    if (kind.kind == FileKind::encrypted) throw Error(source, "is encrypted; a template must be plain");
    Pattern path(place, columns, source + ": its name");
    const bool isXmlFile = isXml(bytes);
    const bool isText = isXmlFile || propertyprotocol::isUtf8WithoutNul(bytes);
    if (isXmlFile) checkEncoding(source, bytes);
    // An image or a certificate is copied whatever braces it holds.
    Pattern content = isText ? Pattern(bytes, columns, source) : Pattern::literal(bytes);
    if (!path.hasPlaceholders() && content.hasPlaceholders()) {
        throw Error(source,
                    "has placeholders, but its place below the output folder has none: every row would write " + place);
    }
    TemplateFile file{source, place, std::move(path), std::move(content)};
    file.kind = kind.kind;
    file.isInitial = kind.root == "provisioning";
    file.isXml = isXmlFile;
    return file;
}

}  // namespace

std::vector<TemplateFile> readTemplate(const std::string& path, const std::string& place,
                                       const std::vector<std::string>& columns, const Key& key) {
    std::vector<TemplateFile> files;
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        files.push_back(readOne(path, place.empty() ? fs::path(path).filename().string() : place, columns, key));
    } else {
        if (!place.empty()) throw Error(path, "is a folder; --name is for a single file");
        const Folder folder = listFolder(path);
        for (const Problem& one : folder.problems) throw Error(path + "/" + one.file, one.reason);
        for (const std::string& name : folder.files) files.push_back(readOne(path + "/" + name, name, columns, key));
    }
    bool perRow = false;
    for (const TemplateFile& file : files) perRow = perRow || file.path.hasPlaceholders();
    if (!perRow) {
        throw Error(path, "no file of the template has a placeholder in its place, such as {" + columns.front() +
                              "}/provisioning.xml; a single file gets one with --name");
    }
    return files;
}

}  // namespace pack
