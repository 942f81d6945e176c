// prop-service: stores the phone's settings and state and serves them on the bus. Wiring only.
#include <CLI/CLI.hpp>
#include <csignal>
#include <future>
#include <iostream>
#include <string>
#include <utility>

#include "SystemdNotifier.h"
#include "catalogue/Catalogue.h"
#include "common/Descriptor.h"
#include "common/Signal.h"
#include "debug/Debug.h"
#include "ipc/Address.h"
#include "ipc/IPCFactory.h"
#include "propertyprotocol/Topics.h"
#include "service/PropertyService.h"
#include "store/Store.h"

namespace {

enum ExitCode : int { done = 0, failed = 1, usage = 2, badCatalogue = 3, badStore = 4 };

constexpr char exitCodes[] =
    "Exit status: 0 stopped by a signal, 1 failure, 2 usage error, 3 invalid catalogue, 4 unusable store.";

std::promise<void>& termination() {
    static std::promise<void> promise;
    return promise;
}

void onTerminate(int) {
    try {
        termination().set_value();
    } catch (const std::future_error&) {  // a second signal: already stopping
    }
}

// HOST:PORT, with brackets around an IPv6 address.
std::string withPort(const ipc::Address& address, int port) {
    const bool isIpv6 = address.host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(port);
}

// Making the table of many keys takes half as long as reading their values.
std::future<propertyservice::PropertyTable> expandMeanwhile(const propertyservice::Definitions& definitions) {
    const common::signal::AllBlocked blocked;
    return std::async(std::launch::async, [&definitions] {
        return propertyservice::PropertyTable(propertyservice::Catalogue(definitions));
    });
}

}  // namespace

int main(int argc, char** argv) {
    common::occupyStandardDescriptors();
    static dbg::Debug channel("PROPS");

    std::string storePath = "/var/lib/zav/properties.db";
    std::string cataloguePath = ZAV_CATALOGUE;
    std::string host = "localhost";
    int port = 0;
    CLI::App app{"Stores the phone's settings and state and serves them on the bus.", "prop-service"};
    app.add_option("--store", storePath, "Settings file; created if missing")->capture_default_str();
    app.add_option("--catalogue", cataloguePath, "File that defines the keys")->capture_default_str();
    app.add_option("--host", host, "The broker: HOST, HOST:PORT or [IPV6]:PORT")
        ->check(ipc::addressError)
        ->capture_default_str();
    const CLI::Option* const portOption =
        app.add_option("--port", port, "The broker's port, if --host has none")->check(CLI::Range(1, 65535));
    app.set_version_flag("--version", "prop-service " ZAV_VERSION);
    app.footer(exitCodes);
    try {
        app.parse(argc, argv);
        const ipc::Address address = ipc::parseAddress(host);
        if (portOption->count() > 0 && address.hasPort) {
            throw CLI::ValidationError("--port", "--host already has a port");
        }
        host = withPort(address, portOption->count() > 0 ? port : address.port);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : usage;
    }

    try {
        const auto reception = common::signal::registerHandler();
        common::signal::registerCustomHandler(SIGTERM, onTerminate);
        common::signal::registerCustomHandler(SIGINT, onTerminate);

        const auto definitions = propertyservice::Definitions::load(cataloguePath);  // first: an error leaves the store
        auto expanding = expandMeanwhile(definitions);
        propertyservice::Store store(storePath);
        propertyservice::PropertyTable defaults = expanding.get();
        const std::size_t count = defaults.all().size();
        propertyservice::PropertyService service(std::move(defaults), store);
        propertyservice::SystemdNotifier notifier;
        const auto bus = ipc::IPCFactory::createService(
            propertyprotocol::serviceName, {[&notifier] { notifier.ready(); }, [&notifier] { notifier.alive(); }});
        dbg::Debug::info() << "Serving " << count << " properties, stored in " << storePath << std::endl;
        bus->start(host, propertyprotocol::statusTopic,
                   {propertyprotocol::getTopic, propertyprotocol::setTopic, propertyprotocol::listTopic,
                    propertyprotocol::describeTopic, propertyprotocol::importTopic},
                   [&service](const std::vector<ipc::ServiceRequest>& requests) { return service.handle(requests); });
        termination().get_future().wait();
        notifier.stopping();
        bus->stop();
        dbg::Debug::info() << "Stopped" << std::endl;
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
