#include "host/errors.h"

namespace error {
const char* kInvalidConfig = "E_INVALID_CONFIG: ";
const char* kMissingArg = "E_MISSING_ARG: ";
const char* kUnknown = "E_UNKNOWN: ";
}  // namespace error

PluginException::PluginException(const std::string& message)
    : std::runtime_error(message) {}

// Out of line so that the type's vtable and type_info live in the host.
PluginException::~PluginException() = default;
