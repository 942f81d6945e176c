#include <gtest/gtest.h>
#include <json/reader.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "fakes/HttpServer.h"
#include "flow/Row.h"
#include "unit/Core/support/Phone.h"

namespace {

const std::string finished = "Finished provisioning, status is";

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

Json::Value json(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

class FlowTest : public testing::TestWithParam<std::string> {
 protected:
    flow::Row prepare() {
        // Nothing listens on port 1, so connections to $CLOSED are refused at once.
        const flow::Row row =
            flow::readRow(GetParam(), {{"$SERVER", server_.url("")}, {"$CLOSED", "http://127.0.0.1:1"}});
        fakes::FakeProperties::Values values = tests::factoryValues();
        for (const auto& [key, value] : row.properties) {
            if (value == "(unknown)") {
                values.erase(key);
            } else {
                values[key] = value;
            }
        }
        properties_ = std::make_shared<fakes::FakeProperties>(values);
        tests::writeFile("/config/bin/clean-up-utils.sh", "#!/bin/sh\n");
        std::filesystem::permissions("/config/bin/clean-up-utils.sh", std::filesystem::perms::owner_all);
        std::map<std::string, std::vector<fakes::HttpAnswer>> answers;
        for (const flow::Answer& answer : row.server) {
            std::string body = answer.body;
            if (answer.encryption == "encrypted") body = tests::encrypted(body);
            if (answer.encryption == "encrypted with another key") body = tests::encrypted(body, "another pass phrase");
            fakes::HttpAnswer made;
            made.status = answer.status;
            made.body = body;
            answers[answer.path].push_back(made);
        }
        for (const auto& [path, list] : answers) server_.on(path, list);
        return row;
    }

    /// The log lines of src/, with the document of the status line moved to document_.
    std::vector<std::string> ownLines() {
        std::vector<std::string> lines;
        for (fakes::LogLine line : phone_.log.linesOf("Core/")) {
            if (line.text.compare(0, finished.size(), finished) == 0) {
                document_ = line.text.substr(finished.size());
                line.text = finished;
            }
            lines.push_back(toText(line));
        }
        return lines;
    }

    std::vector<std::string> writes() {
        std::vector<std::string> lines;
        for (const auto& write : properties_->writes()) {
            lines.push_back(write.key + " =" + (write.value.empty() ? "" : " " + write.value) +
                            (write.source.empty() ? "" : " (by " + write.source + ")"));
        }
        return lines;
    }

    tests::Phone phone_;
    fakes::HttpServer server_;
    std::shared_ptr<fakes::FakeProperties> properties_;
    std::string document_;
};

TEST_P(FlowTest, PassMatchesTheRow) {
    const flow::Row row = prepare();
    std::string refused;
    std::string status;
    {
        zav::ProvisioningWorker worker(properties_, phone_.curl, phone_.security);
        phone_.log.forget();
        try {
            worker.startProvisioning(row.requestUrl);
        } catch (const std::exception& e) {
            refused = e.what();
        }
        // Wait for the pass's last line before stop(), which would end the pass early.
        if (refused.empty() && !worker.isProvisioningFinished()) {
            ASSERT_TRUE(phone_.log.waitFor(
                fakes::info("Core/ProvisioningWatchdog/ProvisioningWorker", "Provisioning Finished")));
        }
        worker.stop();
    }  // waits for the pass
    EXPECT_EQ(refused, row.refused);
    EXPECT_EQ(joined(ownLines()), joined(row.log));
    EXPECT_EQ(joined(writes()), joined(row.writes));
    if (row.status.empty()) {
        EXPECT_EQ(document_, "");
        return;
    }
    ASSERT_NE(document_, "");
    EXPECT_EQ(json(document_)["provisioningStatus"].asString(), row.status);
    EXPECT_EQ(json(document_), json(row.document)) << document_;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/var/volatile/provisioning")) {
        EXPECT_NE(entry.path().extension(), ".tmp") << entry.path() << " was left behind";
    }
}

std::string nameOf(const testing::TestParamInfo<std::string>& row) {
    return std::filesystem::path(row.param).stem().string();
}

INSTANTIATE_TEST_SUITE_P(Rows, FlowTest, testing::ValuesIn(flow::rowFiles(FLOW_ROWS)), nameOf);

}  // namespace
