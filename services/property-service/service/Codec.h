// The JSON of the bus protocol: requests in, answers and changes out.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "catalogue/Catalogue.h"
#include "propertyprotocol/Limits.h"

namespace propertyservice {

using propertyprotocol::maxImportBytes;
using propertyprotocol::maxNesting;
using propertyprotocol::maxRequestBytes;
using propertyprotocol::maxValueBytes;

/// Commas and opening brackets of a request: each takes about 100 bytes of memory once parsed.
inline constexpr std::size_t maxRequestTokens = 1000;
inline constexpr std::size_t maxImportTokens = 200000;
/// A page of a listing ends at the first limit that it reaches, but has at least one entry.
inline constexpr std::size_t maxPageEntries = 1000;
inline constexpr std::size_t maxPageBytes = 1024 * 1024;

/// The payload is not the JSON object that the topic requires. `param` is the requested key, "" if unknown.
class BadRequest : public std::runtime_error {
 public:
    BadRequest(std::string param, const std::string& reason) : runtime_error(reason), param_(std::move(param)) {}
    const std::string& param() const { return param_; }

 private:
    std::string param_;
};

struct GetRequest {
    std::string param;
};

struct SetRequest {
    std::string param;
    std::string value;
    std::string source;
};

struct ListRequest {
    std::string prefix;
    std::string after;
    bool uncatalogued = false;  // list stored values whose keys are not in the catalogue
};

/// Describes one key, or a page of the keys that begin with the prefix.
struct DescribeRequest {
    std::optional<std::string> param;
    ListRequest page;
};

/// Many sets that are applied in one transaction.
struct ImportRequest {
    struct Write {
        std::string param;
        std::optional<std::string> value;  // none: reset to the default
    };
    std::vector<Write> writes;
    std::string source;
    bool apply = false;  // false: only check the writes
};

/// Read a request. For an invalid payload all throw BadRequest and nothing else. Unknown members are ignored.
GetRequest readGet(const std::string& payload);
SetRequest readSet(const std::string& payload);
ListRequest readList(const std::string& payload);
DescribeRequest readDescribe(const std::string& payload);
ImportRequest readImport(const std::string& payload);

std::string valueAnswer(std::string_view key, std::string_view value);
std::string errorAnswer(const std::string& key, const char* code, const std::string& reason);
std::string importAnswer(std::size_t count);
/// `errors` are error answers.
std::string importRefusal(const std::vector<std::string>& errors);
/// The definition of the key as JSON. The default of a secret is hidden.
std::string description(std::string_view key, const Definition& definition, bool isVolatile);

}  // namespace propertyservice
