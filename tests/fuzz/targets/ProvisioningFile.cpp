// A provisioning file from the moment it is plain: load, verify, collect its jobs, filter them, choose their handlers,
// and run those that need no network.
#include <algorithm>
#include <memory>
#include <optional>

#include "Core/GlobalConfig.h"
#include "Core/JobHandlers/JobHandlerFactory.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "fakes/FakeProperties.h"
#include "fuzz/InputFile.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "xml/XMLParser.h"

namespace fuzz {

namespace {

using Jobs = std::vector<zav::JobDescription>;

class Phone {
 public:
    // The parser decrypts its file when it is created, which takes two processes. It is created once, without a file.
    Phone() {
        const zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());
        parser_.emplace(inputFile(""), reader_, properties_);
    }

    void provision(const std::string& file) {
        inputFile(file);
        zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());
        zav::setCurrentProvisioningVersion("");
        if (parser_->parseInitialFile()) runJobs();
        zav::setCurrentProvisioningVersion("");
        reader_.release();
        properties_->forgetCalls();
        status_.resetStatus();
    }

    /// Lists the jobs of a file that is not for this phone too.
    void collect() {
        const zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());
        if (!reader_.load(inputFile_)) return;
        Jobs jobs;
        parser_->collectJobs(jobs);
        check(jobs);
        reader_.release();
    }

 private:
    void runJobs() {
        const auto root = reader_.attributes();
        promise(root.at("productID") == zav::GlobalConfig::productIdentifier, "a verified file is for this product");
        Jobs jobs;
        parser_->collectJobs(jobs);
        check(jobs);
        const std::size_t all = jobs.size();
        zav::removeJobsNotAllowed(jobs);
        promise(jobs.size() <= all, "a filter adds nothing");
        for (const zav::JobDescription& job : jobs) run(job);
    }

    static void check(const Jobs& jobs) {
        std::size_t items = 0;
        for (const zav::JobDescription& job : jobs) {
            promise(!job.items.empty(), "a job has items");
            items += job.items.size();
        }
        promise(items <= zav::ProvisioningFileParser::maximumItems, "a file has a bounded number of items");
    }

    void run(const zav::JobDescription& job) {
        const auto handler =
            zav::JobHandlerFactory::create(job, curl_, security_, properties_, reader_, progress_, status_);
        if (!handler) return;
        try {
            handler->findNewestUrl(job);
        } catch (const std::out_of_range&) {  // the newest file has no URL
        }
        for (const zav::Attributes& item : job.items) resolve(zav::attributeOr(item, "url", ""));
        const bool isSettings = job.name == "settings" || (job.name == "nvm" && job.itemName == "param");
        if (!isSettings) return;
        const std::size_t before = properties_->writes().size();
        const int result = handler->run();
        promise(result >= zav::jobFail && result <= zav::jobSuccess, "a job has a result");
        promise(properties_->writes().size() - before <= job.items.size(), "an item writes one property at most");
    }

    static void resolve(const std::string& reference) {
        try {
            const std::string name = zav::makeJobUrlInfo(reference, "https://server.test/phones/").localName();
            promise(name.find('/') == std::string::npos && name != ".." && name.size() <= 200,
                    "a local name stays in its folder");
        } catch (const zav::UrlException&) {
        }
    }

    const std::shared_ptr<fakes::FakeProperties> properties_ =
        std::make_shared<fakes::FakeProperties>(fakes::FakeProperties::Values{
            {"NET.MAC.Address", "00:0A:0B:0C:0D:0E"},
            {"Telephony.Name", ""},
            {"FunctionKeys.1.LockProvisioning", "1"},
            {"FunctionKeys.2.LockProvisioning", "0"},
            {"PhoneUI.Keys.FunctionKeys.2.Label", ""},
        });
    const std::string inputFile_ = inputFile("");
    zav::Security security_{properties_};
    const std::shared_ptr<zav::Curl> curl_ = std::make_shared<zav::Curl>();
    zav::ProgressReporter progress_;
    zav::ProvisioningStatusReporter status_;
    zav::XMLParser reader_;
    std::optional<zav::ProvisioningFileParser> parser_;
};

}  // namespace

void provisioning_file(const std::string& input) {
    static Phone phone;
    phone.provision(input);
    phone.collect();
}

}  // namespace fuzz
