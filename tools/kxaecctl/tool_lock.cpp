#include "tool_lock.h"

#include <system_error>

#include "tool_error.h"

namespace aectool {

ToolLock::ToolLock() {
  try {
    lock_ = std::make_unique<aec::ConfigLock>();
  } catch (const std::system_error& e) {
    throw ToolError(Exit::kUnknownError, e.what());
  }
}

}  // namespace aectool
