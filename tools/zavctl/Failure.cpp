#include "Failure.h"

#include "ipc/IPCException.h"
#include "propertyapi/PropertyExceptions.h"
#include "propertyprotocol/Errors.h"

namespace zavctl {

Failure currentFailure() {
    try {
        throw;
    } catch (const Failure& failure) {
        return failure;
    } catch (const propertyapi::PropertyNotFoundException& error) {
        return {ExitCode::noSuchKey, propertyprotocol::errors::notFound,
                std::string(error.what()) + " (zavctl list shows the keys)"};
    } catch (const propertyapi::PropertyInvalidValueException& error) {
        return {ExitCode::failed, propertyprotocol::errors::invalidValue, error.what()};
    } catch (const propertyapi::PropertyReadOnlyException& error) {
        return {ExitCode::failed, propertyprotocol::errors::readOnly, error.what()};
    } catch (const propertyapi::PropertyStorageException& error) {
        return {ExitCode::failed, propertyprotocol::errors::storage, error.what()};
    } catch (const propertyapi::PropertyTimeoutException& error) {
        return {ExitCode::timedOut, "timed-out", error.what()};
    } catch (const propertyapi::PropertyOfflineException& error) {
        return {ExitCode::unreachable, "unreachable", std::string(error.what()) + " (is prop-service running?)"};
    } catch (const propertyapi::PropertyException& error) {
        return {ExitCode::failed, propertyprotocol::errors::badRequest, error.what()};
    } catch (const ipc::IPCException& error) {
        return {ExitCode::unreachable, "unreachable",
                std::string(error.what()) + " (is the broker running? --host selects another one)"};
    } catch (const std::exception& error) {
        return {ExitCode::failed, "failed", error.what()};
    }
}

}  // namespace zavctl
