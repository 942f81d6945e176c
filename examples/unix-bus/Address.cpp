#include "ipc/Address.h"

#include "Frame.h"
#include "ipc/IPCException.h"

namespace ipc {

Address parseAddress(const std::string& text) {
    const std::string error = addressError(text);
    if (!error.empty()) throw IPCException(error);
    return {text, 1883, false};
}

std::string addressError(const std::string& text) {
    return text.empty() || text.size() > 100 ? "'" + text + "' is not the path of a socket" : "";
}

}  // namespace ipc
