#include "Core/JobHandlers/NVMJobHandler.h"

#include <sstream>
#include <utility>

#include "Core/Constants.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/Pass.h"
#include "common/Quote.h"
#include "debug/Debug.h"

namespace zav {

namespace {

// Part of the error text; spelled out because __PRETTY_FUNCTION__ differs between compilers.
constexpr const char* getIndexAndPostfixSignature =
    "std::pair<const std::basic_string<char>, const std::basic_string<char> > "
    "zav::{anonymous}::getIndexAndPostfix(const string&, const string&)";

}  // namespace

std::string lockKeyOf(const std::string& index) { return "FunctionKeys." + index + "." + lockPostfix; }

std::pair<const std::string, const std::string> getIndexAndPostfix(const std::string& name, const std::string& prefix) {
    const auto dot = name.find('.', prefix.length());
    if (dot == std::string::npos) {
        throw InvalidFormatException("Function key parameter name invalid " + quote(getIndexAndPostfixSignature));
    }
    return {name.substr(prefix.length(), dot - prefix.length()), name.substr(dot + 1)};
}

bool isFunctionKeyParam(const std::string& name, const std::string& prefix) {
    if (name.compare(0, prefix.length(), prefix) != 0) return false;
    static_cast<void>(std::stoi(getIndexAndPostfix(name, prefix).first, nullptr, 10));
    return true;
}

int NVMJobHandler::run() {
    total_ = static_cast<int>(job_->items.size());
    applied_ = 0;
    applyParams();
    std::ostringstream text;
    text << applied_ << "/" << total_ << std::endl;
    int result = jobPartSuccess;
    if (applied_ == total_) {
        result = jobSuccess;
    } else if (applied_ == 0) {
        result = jobFail;
    }
    statusReporter_.setJobField(getName(), "extraInfo", text.str());
    return result;
}

void NVMJobHandler::applyParams() {
    const Pass& pass = Pass::current();
    std::uint64_t done = 0;
    for (const Attributes& param : job_->items) {
        if (pass.isOverdue()) {
            dbg::Debug::warning() << "The process is shutting down, " << applied_ << " of " << total_
                                  << " params were applied" << std::endl;
            return;
        }
        std::string name = "???";
        std::string value = "???";
        try {
            name = param.at("name");
            value = param.at("value");
            if (isFunctionKeyParam(name, functionKeyPrefix)) {
                applyFunctionKeyParam(name, value);
            } else {
                dbg::Debug::info() << "Applying param: " << quote(name, value, "=") << std::endl;
                write(name, value);
            }
        } catch (const propertyapi::PropertyNotFoundException& e) {
            dbg::Debug::warning() << e.what() << std::endl;
            PassObserver::current().settingRefused(name, value, e.what());
        } catch (const std::exception& e) {
            dbg::Debug::error() << "Could not set param : " << quote(name, value, "=") << " (exception " << e.what()
                                << ")" << std::endl;
            PassObserver::current().settingRefused(name, value, e.what());
        }
        if (pass.progress() != nullptr) pass.progress()->report(++done, job_->items.size());
    }
}

void NVMJobHandler::applyFunctionKeyParam(const std::string& name, const std::string& value) {
    const auto [index, postfix] = getIndexAndPostfix(name, functionKeyPrefix);
    if (postfix == lockPostfix) {
        dbg::Debug::warning() << "This parameter can not be set by provisioning " << quote(name) << std::endl;
        PassObserver::current().settingRefused(name, value, "can not be set by provisioning");
    } else if (isFunctionKeyLocked(index)) {
        dbg::Debug::warning() << "This parameter can not be changed because it is locked " << quote(name) << std::endl;
        PassObserver::current().settingRefused(name, value, "the function key is locked");
    } else {
        dbg::Debug::info() << "Applying function key param: " << quote(name, value, "=") << std::endl;
        write(name, value);
    }
}

// Unlike the key's parameters, its lock flag has no "PhoneUI.Keys." prefix.
bool NVMJobHandler::isFunctionKeyLocked(const std::string& index) {
    auto flag = lockCache_.find(index);
    if (flag == lockCache_.end()) {
        flag = lockCache_.emplace(index, properties_->get(lockKeyOf(index))).first;
    }
    return flag->second != "0";
}

void NVMJobHandler::write(const std::string& name, const std::string& value) {
    properties_->set(name, constants.provisioningSource, value);
    ++applied_;
}

}  // namespace zav
