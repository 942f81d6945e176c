// The floor of reading a provisioning file: libxml2's parser, a map of attributes for each element without children,
// and freeing both. Checks nothing.
//
//   floor_parse FILE [Google Benchmark's options]
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <malloc.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Attributes = std::map<std::string, std::string>;

std::string text(const xmlChar* string) {
    return string == nullptr ? std::string() : reinterpret_cast<const char*>(string);
}

void collect(const xmlNode* element, std::vector<Attributes>& items) {
    for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) continue;
        if (child->children != nullptr) {
            collect(child, items);
            continue;
        }
        Attributes attributes;
        for (const xmlAttr* attribute = child->properties; attribute != nullptr; attribute = attribute->next) {
            attributes.emplace(text(attribute->name), text(attribute->children->content));
        }
        items.push_back(std::move(attributes));
    }
}

void readFile(const std::string& path) {
    const xmlDocPtr document = xmlParseFile(path.c_str());
    if (document == nullptr) throw std::runtime_error("the file cannot be parsed");
    std::vector<Attributes> items;
    collect(xmlDocGetRootElement(document), items);
    xmlFreeDoc(document);
    benchmark::DoNotOptimize(items);
}

void readFileOften(benchmark::State& state, const std::string& path) {
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        malloc_trim(0);
        state.ResumeTiming();
        readFile(path);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) return 2;
    mallopt(M_ARENA_MAX, 1);
    xmlInitParser();
    benchmark::RegisterBenchmark("file", readFileOften, std::string(argv[1]))->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
