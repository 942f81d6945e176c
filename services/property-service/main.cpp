// prop-service: keeps every setting and state of the phone and serves them on the bus. Wiring only.
#include <CLI/CLI.hpp>
#include <csignal>
#include <future>
#include <iostream>
#include <string>

#include "catalogue/Catalogue.h"
#include "common/Descriptor.h"
#include "common/Signal.h"
#include "debug/Debug.h"
#include "ipc/Address.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"
#include "propertyprotocol/Topics.h"
#include "service/PropertyService.h"
#include "store/Store.h"

namespace {

enum ExitCode : int { done = 0, failed = 1, usage = 2, badCatalogue = 3, badStore = 4 };

constexpr char exitCodes[] =
    "Exit status: 0 ended by a signal, 1 failed, 2 usage, 3 the catalogue is wrong, 4 the store cannot be used.";

std::promise<void>& termination() {
    static std::promise<void> promise;
    return promise;
}

void onTerminate(int) {
    try {
        termination().set_value();
    } catch (const std::future_error&) {  // a second signal: the end is under way
    }
}

std::string objectionToHost(const std::string& host) {
    try {
        ipc::parseAddress(host);
        return {};
    } catch (const ipc::IPCException& error) {
        return error.what();
    }
}

// As the bus takes it: an IPv6 address stands in brackets before a port.
std::string withPort(const ipc::Address& address, int port) {
    const bool isIpv6 = address.host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(port);
}

}  // namespace

int main(int argc, char** argv) {
    common::occupyStandardDescriptors();
    static dbg::Debug channel("PROPS");

    std::string storePath = "/var/lib/zav/properties.db";
    std::string cataloguePath = "/usr/share/zav/catalogue.json";
    std::string host = "localhost";
    int port = 0;
    CLI::App app{"Keeps every setting and state of the phone, and serves them on the bus.", "prop-service"};
    app.add_option("--store", storePath, "File that holds the settings; made if it is missing")->capture_default_str();
    app.add_option("--catalogue", cataloguePath, "File that says which keys there are")->capture_default_str();
    app.add_option("--host", host, "The broker: HOST, HOST:PORT or [IPV6]:PORT")
        ->check(objectionToHost)
        ->capture_default_str();
    const CLI::Option* const portOption =
        app.add_option("--port", port, "The broker's port, if --host has none")->check(CLI::Range(1, 65535));
    app.set_version_flag("--version", "prop-service " ZAV_VERSION);
    app.footer(exitCodes);
    try {
        app.parse(argc, argv);
        const ipc::Address address = ipc::parseAddress(host);
        if (portOption->count() > 0 && address.hasPort) {
            throw CLI::ValidationError("--port", "the port stands in --host already");
        }
        host = withPort(address, portOption->count() > 0 ? port : address.port);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : usage;
    }

    try {
        const auto reception = common::signal::registerHandler();
        common::signal::registerCustomHandler(SIGTERM, onTerminate);
        common::signal::registerCustomHandler(SIGINT, onTerminate);

        const propertyservice::Catalogue catalogue = propertyservice::Catalogue::load(cataloguePath);
        propertyservice::Store store(storePath);
        propertyservice::PropertyService service(catalogue, store);
        const auto bus = ipc::IPCFactory::createService(propertyprotocol::serviceName);
        dbg::Debug::info() << "Serving " << catalogue.keys().size() << " properties, stored in " << storePath
                           << std::endl;
        bus->start(host, propertyprotocol::statusTopic,
                   {propertyprotocol::getTopic, propertyprotocol::setTopic, propertyprotocol::listTopic,
                    propertyprotocol::describeTopic, propertyprotocol::importTopic},
                   [&service](const std::vector<ipc::ServiceRequest>& requests) { return service.handle(requests); });
        termination().get_future().wait();
        bus->stop();
        dbg::Debug::info() << "Ended" << std::endl;
        return done;
    } catch (const propertyservice::CatalogueException& error) {
        std::cerr << "prop-service: " << error.what() << std::endl;
        return badCatalogue;
    } catch (const propertyservice::StoreException& error) {
        std::cerr << "prop-service: " << error.what() << std::endl;
        return badStore;
    } catch (const std::exception& error) {
        std::cerr << "prop-service: " << error.what() << std::endl;
        return failed;
    }
}
