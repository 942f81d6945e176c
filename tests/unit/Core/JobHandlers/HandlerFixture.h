// The constructor arguments of every job handler, for tests of a single handler.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Core/JobHandlers/JobDescription.h"
#include "Core/Pass.h"
#include "Core/ProvisioningStatusReporter.h"
#include "Core/ProvisioningWatchdog/ProgressReporter.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"
#include "xml/XMLParser.h"

namespace tests {

class HandlerFixture : public testing::Test {
 protected:
    HandlerFixture() {
        phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/"));
        zav::setCurrentProvisioningVersion("1.0");
        phone_.log.forget();
    }

    template <typename Handler>
    std::unique_ptr<Handler> make(const zav::JobDescription& job) {
        return std::make_unique<Handler>(job, phone_.curl, phone_.security, phone_.properties, reader_, progress_,
                                         status_);
    }

    /// The status document as logged at the end of a pass.
    std::string document() {
        status_.reportFinished();
        const auto lines = phone_.log.linesOf("Core/ProvisioningStatusReporter");
        return lines.empty() ? "" : lines.back().text;
    }

    Phone phone_;
    fakes::HttpServer server_;
    const std::shared_ptr<common::StopSignal> stop_ =
        std::make_shared<common::StopSignal>(std::chrono::milliseconds(0));  // without a grace period
    zav::Pass pass_{nullptr, stop_};                                         // on the test's thread
    zav::XMLParser reader_;
    zav::ProgressReporter progress_;
    zav::ProvisioningStatusReporter status_;
};

}  // namespace tests
