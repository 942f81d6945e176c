#include "Doctor.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <iomanip>

#include "Commands.h"
#include "Output.h"
#include "common/Descriptor.h"
#include "debug/Debug.h"

namespace zavctl {

namespace {

constexpr std::chrono::seconds allTime{20};
constexpr std::array<const char*, 4> levels{"ok", "warning", "error", "unknown"};

// A private folder that is removed however this process ends: a child process waits for that. Construct it before any
// thread is started.
class TemporaryFolder {
 public:
    TemporaryFolder() {
        // A fixed place: the decryption command does not quote the path.
        std::string path = "/tmp/zavctl-doctor-XXXXXX";
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
        const common::Descriptor reader(ends[0]);
        writer_.reset(ends[1]);
        if (::mkdtemp(path.data()) == nullptr) return;
        path_ = path;
        child_ = ::fork();
        if (child_ != 0) return;
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        writer_.close();
        for (const int output : {STDOUT_FILENO, STDERR_FILENO})
            ::close(output);  // whoever reads them waits for the end
        char byte = 0;
        while (::read(reader.get(), &byte, 1) > 0) continue;
        remove();
        ::_exit(0);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        remove();
        writer_.close();
        if (child_ > 0) ::waitpid(child_, nullptr, 0);
    }

    /// Empty if there is none.
    const std::string& path() const { return path_; }

 private:
    void remove() const {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }

    std::string path_;
    common::Descriptor writer_;
    pid_t child_ = -1;
};

Finding run(const Check& check, Examination& examination) {
    try {
        return check.run(examination);
    } catch (const std::exception& reason) {
        return notChecked(reason.what());
    }
}

}  // namespace

ExitCode doctor(const Environment& environment, const Options& options, const std::string& log) {
    dbg::Debug::setDebugLevelMask("0");  // the findings say what the daemon's code would log
    const TemporaryFolder folder;
    Examination examination;
    examination.host = options.host;
    examination.log = log;
    examination.folder = folder.path();
    examination.deadline = std::make_shared<common::StopSignal>(allTime);
    examination.deadline->stop();  // begins the time; what runs when it is over ends
    examination.bus = environment.makeBus(options.host);
    examination.properties = environment.makeProperties(examination.bus);
    ExitCode code = ExitCode::done;
    Json::Value findings(Json::arrayValue);
    for (const auto& checks : {phoneChecks(), busChecks(), serverChecks()}) {
        for (const Check& check : checks) {
            const Finding finding = run(check, examination);
            const char* const level = levels.at(static_cast<std::size_t>(finding.level));
            if (finding.level == Level::error) code = ExitCode::failed;
            if (options.json) {
                Json::Value& object =
                    findings.append(toObject({{"subject", check.subject}, {"level", level}, {"text", finding.text}}));
                if (!finding.fix.empty()) object["fix"] = finding.fix;
                continue;
            }
            environment.out << std::left << std::setw(9) << level << std::setw(22) << check.subject
                            << dbg::escapeControls(finding.text) << std::endl;
            if (!finding.fix.empty()) environment.out << std::string(9, ' ') << finding.fix << std::endl;
        }
    }
    if (options.json) printJson(environment.out, toObject({{"findings", findings}}));
    return code;
}

}  // namespace zavctl
