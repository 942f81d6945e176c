#include "xml/XMLParser.h"

#include <map>

namespace zav {

const std::string& formatName(unsigned number) {
    static const std::map<unsigned, std::string> names{
        {0, "version"},  {1, "productID"}, {3, "provisioning"}, {4, "category"}, {5, "type"},  {6, "url"},
        {7, "firmware"}, {8, "file"},      {9, "version"},      {10, "url"},     {11, "nvm"},  {12, "file"},
        {13, "version"}, {14, "url"},      {15, "settings"},    {16, "param"},   {17, "name"}, {18, "value"},
        {19, "flags"},   {20, "custom"},   {21, "scenario"},    {22, "step"},    {23, "type"},
    };
    static const std::string none;
    const auto found = names.find(number);
    return found == names.end() ? none : found->second;
}

}  // namespace zav
