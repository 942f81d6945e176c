#include "Doctor.h"

#include <json/value.h>

#include <array>
#include <iomanip>

#include "Commands.h"
#include "Output.h"
#include "common/TemporaryFolder.h"
#include "debug/Debug.h"

namespace zavctl {

namespace {

constexpr std::chrono::seconds allTime{20};
constexpr std::array<const char*, 4> levels{"ok", "warning", "error", "unknown"};

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
    const common::TemporaryFolder folder("zavctl-doctor");
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
