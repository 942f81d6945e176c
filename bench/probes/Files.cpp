// What a pass does with a downloaded provisioning file before its first job: load, verify, collect the jobs, free the
// document and the jobs. Each round begins with a trimmed heap, as a pass does. Its floor is bench/floors/parse.cpp.
//
//   bench_files FILE [Google Benchmark's options]
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Core/Constants.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "common/Memory.h"
#include "common/StopSignal.h"
#include "debug/Debug.h"
#include "xml/XMLParser.h"

namespace {

const dbg::Debug channel("BENCH");

/// A phone that has a MAC address and nothing else.
class OneProperty : public propertyapi::IPropertyApi {
 public:
    std::string get(const std::string&) override { return "02:00:5E:10:00:01"; }
    void set(const std::string&, const std::string&) override {}
    void set(const std::string&, const std::string&, const std::string&) override {}
    propertyapi::PropertyPage list(const std::string&, const std::string&) override { return {}; }
    void beginShutdown() override {}
};

void readFile(const std::string& path, const std::shared_ptr<propertyapi::IPropertyApi>& properties) {
    zav::XMLParser reader;
    std::vector<zav::JobDescription> jobs;
    zav::ProvisioningFileParser parser(path, reader, properties, zav::ProvisioningFileParser::Decryption::none);
    if (!parser.parseInitialFile()) throw std::runtime_error("the file was refused");
    parser.collectJobs(jobs);
    reader.release();
    if (jobs.empty()) throw std::runtime_error("the file has no jobs");
    benchmark::DoNotOptimize(jobs);
}

void readFileOften(benchmark::State& state, const std::string& path) {
    const auto properties = std::make_shared<OneProperty>();
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        common::releaseFreeMemory();
        zav::setCurrentProvisioningVersion({});
        const zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());
        state.ResumeTiming();
        readFile(path, properties);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) return 2;
    common::useOneHeap();
    dbg::Debug::setDebugLevelMask("1");
    const zav::xml::Library library;
    benchmark::RegisterBenchmark("file", readFileOften, std::string(argv[1]))->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
