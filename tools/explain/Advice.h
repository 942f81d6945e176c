// What an author can do about what went wrong in an explained pass: `zavctl lint` of the file concerned where only it
// knows the place, and otherwise the remedy that belongs to the event.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "explain/Explain.h"
#include "lint/Settings.h"

namespace explain {

struct AdviceSource {
    std::shared_ptr<const lint::Settings> settings;
    std::string keyFile;
    std::string macAddress;
    /// The path of a file of the phone on this machine.
    std::function<std::string(const std::string& phonesPath)> fileOnDisk;
};

/// Adds an event behind each that it explains, and puts the cause of a failure in place of what follows from it.
void addAdvice(Explanation& explanation, const AdviceSource& source);

}  // namespace explain
