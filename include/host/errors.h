// Error prefixes of the host and the plug-in's exception type.
//
// A reportable failure is a PluginException whose message is one of the
// prefixes below followed by a (translated) text, e.g.
//   PluginException(std::string(error::kMissingArg) + gettext("rule name")).
// The prefixes are short code texts owned by the host; clients may match on
// them. They are never null.
#pragma once

#include <stdexcept>
#include <string>

#include "host/host_api.h"

namespace error {
KX_HOST_API extern const char* kInvalidConfig;  // "E_INVALID_CONFIG: "
KX_HOST_API extern const char* kMissingArg;     // "E_MISSING_ARG: "
KX_HOST_API extern const char* kUnknown;        // "E_UNKNOWN: "
}  // namespace error

// The plug-in's exception: a std::runtime_error (virtual base) built from one
// message; what() returns that message unchanged. Its type information lives
// in the host runtime so that both sides of the library boundary agree on it.
class KX_HOST_API PluginException : public virtual std::runtime_error {
 public:
  explicit PluginException(const std::string& message);
  ~PluginException() override;
};
