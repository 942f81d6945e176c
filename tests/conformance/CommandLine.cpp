#include "CommandLine.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "BusFixtures.h"
#include "Settings.h"

namespace conformance {

namespace {

constexpr char help[] = R"(Checks a bus library and a property client against the promises in their headers.
Usage: zav-platform-tests --address ADDRESS --start-bus COMMAND [OPTIONS]

The bus:
  --address ADDRESS        what clients connect to
  --start-bus COMMAND      starts the bus without any state; it stays in the foreground and is killed
  --stop-bus COMMAND       kills the bus, if the other command returns
  --tcp                    the address is 127.0.0.1:PORT, so connections can be cut
  --no-requests            leave out the checks of requests and of services

The property service, whose checks are skipped without it:
  --start-service COMMAND  starts the property service on that bus; the same rules
  --stop-service COMMAND
  --text-key KEY           accepts any text (System.General.Location)
  --number-key KEY         refuses the value "loud" (Audio.Ringer.Volume)
  --guarded-key KEY        refuses the source "provisioning" (State.Provisioning)

The checks:
  --patience SECONDS       how long to wait for what must happen (30)
  --list                   print their names, by header
  --only PATTERNS          run these, such as 'Client.*:Request.*'; behind a "-" those to leave out
  --report FILE            also write the results to a file, as JUnit XML
  -h, --help               print this and exit

Exit status: 0 every check that ran has passed, 1 a check has failed, 2 usage error.
)";

/// The header whose promises a suite checks.
std::string headerOf(const std::string& suite) {
    static const std::map<std::string, std::string> headers{{"Callbacks", "ipc/IIPCCallback.h"},
                                                            {"Service", "ipc/IIPCService.h"},
                                                            {"ServiceEvents", "ipc/IIPCService.h"},
                                                            {"Properties", "propertyapi/IPropertyApi.h"},
                                                            {"Changes", "propertyapi/IPropertyApi.h"},
                                                            {"PropertyErrors", "propertyapi/PropertyExceptions.h"},
                                                            {"PropertyOutage", "propertyapi/IPropertyApi.h"},
                                                            {"Recovery", "propertyapi/RecoveryScope.h"}};
    const auto found = headers.find(suite);
    return found == headers.end() ? "ipc/IIPCClient.h" : found->second;
}

using Check = std::pair<const testing::TestSuite&, const testing::TestInfo&>;

void forEachCheck(const std::function<void(const std::string& header, const testing::TestInfo&)>& visit) {
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) visit(headerOf(suite.name()), *suite.GetTestInfo(j));
    }
}

std::string nameOf(const testing::TestInfo& check) { return std::string(check.test_suite_name()) + "." + check.name(); }

void list() {
    std::map<std::string, std::vector<std::string>> byHeader;
    forEachCheck(
        [&](const std::string& header, const testing::TestInfo& check) { byHeader[header].push_back(nameOf(check)); });
    for (const auto& [header, names] : byHeader) {
        std::cout << header << "\n";
        for (const std::string& name : names) std::cout << "  " << name << "\n";
    }
}

/// What GoogleTest's own report lacks: the header of a broken promise, and why a check was skipped.
void summarize() {
    std::cout << "\n";
    int passed = 0;
    forEachCheck([&](const std::string& header, const testing::TestInfo& check) {
        if (!check.should_run()) return;
        const testing::TestResult& result = *check.result();
        if (result.Failed()) {
            std::cout << "broken: " << nameOf(check) << ", promised in " << header << "\n";
        } else if (result.Skipped()) {
            std::cout << "skipped: " << nameOf(check) << ": " << result.GetTestPartResult(0).summary() << "\n";
        } else {
            ++passed;
        }
    });
    std::cout << passed << " promises kept" << std::endl;
}

/// Serves requests until it is killed: a process whose death the bus has to announce.
[[noreturn]] void serve(const std::string& address) {
    const bustest::EchoService service(address);
    for (;;) pause();
}

class Options {
 public:
    Options() {
        Settings& to = settings();
        texts_ = {{"--address", &to.address},
                  {"--start-bus", &to.startBus},
                  {"--stop-bus", &to.stopBus},
                  {"--start-service", &to.startService},
                  {"--stop-service", &to.stopService},
                  {"--text-key", &to.textKey},
                  {"--number-key", &to.numberKey},
                  {"--guarded-key", &to.guardedKey},
                  {"--patience", &patience_},
                  {"--serve", &serve_},
                  {"--only", &only_},
                  {"--report", &report_}};
        flags_ = {{"--tcp", [&to] { to.isTcp = true; }},
                  {"--no-requests", [&to] { to.hasRequests = false; }},
                  {"--list", [this] { list_ = true; }},
                  {"--help", [this] { help_ = true; }},
                  {"-h", [this] { help_ = true; }}};
    }

    /// Returns the text of a usage error.
    std::string read(const std::vector<std::string>& words) {
        for (std::size_t i = 0; i < words.size(); ++i) {
            const auto text = texts_.find(words[i]);
            const auto flag = flags_.find(words[i]);
            if (flag != flags_.end()) {
                flag->second();
            } else if (text == texts_.end()) {
                return "unknown option '" + words[i] + "'";
            } else if (++i == words.size()) {
                return words[i - 1] + " needs an argument";
            } else {
                *text->second = words[i];
            }
        }
        const int seconds = std::atoi(patience_.c_str());
        if (seconds <= 0) return "--patience needs a number of seconds";
        settings().patience = std::chrono::seconds(seconds);
        if (help_ || list_ || !serve_.empty()) return "";
        if (settings().address.empty()) return "--address is missing";
        return settings().startBus.empty() ? "--start-bus is missing" : "";
    }

    int execute() const {
        if (help_) return std::cout << help, EXIT_SUCCESS;
        if (list_) return list(), EXIT_SUCCESS;
        if (!serve_.empty()) serve(serve_);
        if (!only_.empty()) testing::GTEST_FLAG(filter) = only_;
        if (!report_.empty()) testing::GTEST_FLAG(output) = "xml:" + report_;
        const int status = RUN_ALL_TESTS();
        summarize();
        return status;
    }

 private:
    std::map<std::string, std::string*> texts_;
    std::map<std::string, std::function<void()>> flags_;
    std::string patience_ = "30";
    std::string serve_;
    std::string only_;
    std::string report_;
    bool list_ = false;
    bool help_ = false;
};

}  // namespace

int run(int argc, char** argv) {
    settings().program = argv[0];
    testing::InitGoogleTest(&argc, argv);
    Options options;
    const std::string mistake = options.read({argv + 1, argv + argc});
    if (!mistake.empty()) {
        std::cerr << "zav-platform-tests: " << mistake << "; see --help" << std::endl;
        return 2;
    }
    return options.execute();
}

}  // namespace conformance
