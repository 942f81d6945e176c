#include "BrokenProperties.h"

#include <algorithm>
#include <future>
#include <utility>
#include <vector>

#include "BrokenBus.h"

namespace broken {

namespace {

using namespace propertyapi;

class Properties final : public IPropertyApi {
 public:
    explicit Properties(std::shared_ptr<IPropertyApi> real) : real_(std::move(real)) {}

    std::string get(const std::string& key) override {
        return translated([&] { return real_->get(key); });
    }

    std::vector<Reading> getEach(const std::vector<std::string>& keys) override {
        std::vector<Reading> readings = IPropertyApi::getEach(keys);
        if (breaks("keys read together keep their order")) {
            std::rotate(readings.begin(), readings.begin() + 1, readings.end());
        }
        return readings;
    }

    void set(const std::string& key, const std::string& value) override {
        translated([&] { real_->set(key, value); });
        if (breaks("a set is made once")) real_->set(key, value);
    }

    void set(const std::string& key, const std::string& source, const std::string& value) override {
        if (breaks("a change has its source")) return set(key, value);
        translated([&] { real_->set(key, source, value); });
    }

    PropertyPage list(const std::string& prefix, const std::string& after) override {
        PropertyPage page = real_->list(prefix, after);
        if (breaks("lists are sorted")) std::reverse(page.properties.begin(), page.properties.end());
        if (breaks("lists are complete")) page.next.clear();
        if (breaks("lists are complete") && page.properties.size() > 1) page.properties.resize(1);
        return page;
    }

    void beginShutdown() override {
        if (!breaks("shutdown limits calls")) real_->beginShutdown();
    }

 private:
    /// The call's result, with the exceptions that the broken promise makes of the right ones.
    template <typename Call>
    auto translated(Call call) -> decltype(call()) {
        try {
            // A thread of its own has no RecoveryScope.
            if (breaks("calls wait under RecoveryScope")) return std::async(std::launch::async, call).get();
            return call();
        } catch (const PropertyNotFoundException& error) {
            if (breaks("an unknown key has its exception")) throw PropertyException(error.what());
            throw;
        } catch (const PropertyInvalidValueException& error) {
            if (breaks("an invalid value has its exception")) throw PropertyProtocolException(error.what());
            throw;
        } catch (const PropertyOfflineException&) {
            if (!breaks("calls fail at once while the service is offline")) throw;
            std::promise<void> never;
            never.get_future().wait_for(std::chrono::seconds(1));
            throw;
        } catch (const PropertyTimeoutException& error) {
            if (breaks("a time-out has its exception")) throw PropertyOfflineException(error.what());
            throw;
        }
    }

    const std::shared_ptr<IPropertyApi> real_;
};

}  // namespace

std::shared_ptr<IPropertyApi> createProperties(std::shared_ptr<ipc::IIPCClient> bus, const std::string& name) {
    return std::make_shared<Properties>(PropertyApiBuilder::getPropertyApi(std::move(bus), name));
}

}  // namespace broken
