// confirm: the administrator's confirmation of hard mode, through the same
// state the service keeps.
#include <iostream>

#include "aec_policies/aechardmodeconfirmation.h"
#include "commands.h"
#include "tool_error.h"

namespace aectool {

void RunConfirm(const Invocation&) {
  // The plug-in's own confirmation object: the same state, lock and warning
  // files, and confirming removes the login warning as it does there.
  auto& confirmation = AecHardModeConfirmation::Get();
  if (!confirmation->Confirm()) {
    throw ToolError(Exit::kOperationCanceled,
                    "hard mode was not confirmed in time and can no longer "
                    "be confirmed (state " +
                        std::to_string(confirmation->State()) +
                        "); switch hard mode off and on again to start a "
                        "new confirmation");
  }
  std::cerr << "kxaecctl: AEC hard mode is confirmed\n";
}

}  // namespace aectool
