// What the commands of a pass do, done in this process, because starting openssl takes most of the time of a pass.
// InProcessTest compares this with openssl itself.
#pragma once

#include <string>

namespace fuzz {

/// Executes `openssl enc -CIPHER [-pbkdf2] [-md DIGEST] -d -in FILE -out FILE -pass file:FILE` or the clean-up before a
/// firmware download, which does nothing on a phone in memory. Throws os::ExecuteException where the command would
/// fail. Aborts on any other command.
void executeInProcess(const std::string& command);

}  // namespace fuzz
