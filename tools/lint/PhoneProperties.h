// What is known about a phone, as the property client that the daemon's code expects. Read-only; any thread.
#pragma once

#include <string>
#include <utility>

#include "lint/Lint.h"
#include "propertyapi/IPropertyApi.h"

namespace lint {

class PhoneProperties final : public propertyapi::IPropertyApi {
 public:
    explicit PhoneProperties(Phone phone) : phone_(std::move(phone)) {}

    /// Throws PropertyNotFoundException for what is not known.
    std::string get(const std::string& key) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, const std::string& source, const std::string& value) override;
    propertyapi::PropertyPage list(const std::string& prefix, const std::string& after) override;
    void beginShutdown() override {}

 private:
    const Phone phone_;
};

}  // namespace lint
