#include "aec_policies/aeclogtypes.h"

namespace aec {

// The texts are the product's own; the full stop of the fourth is kept.
const std::array<AecLogType, 6> kAecLogTypes = {{
    {"log_perm_exec", "Register file execution", 1,
     AecLogModeSetter::kLogPermExec},
    {"log_deny_exec", "Register prohibition of files execution", 1,
     AecLogModeSetter::kLogDenyExec},
    {"log_perm_openlib", "Register loading libraries", 1,
     AecLogModeSetter::kLogPermOpenLib},
    {"log_deny_openlib", "Register prohibition of loading libraries.", 1,
     AecLogModeSetter::kLogDenyOpenLib},
    {"log_perm_openfile", "Register opening files", 0,
     AecLogModeSetter::kLogPermOpenFile},
    {"log_deny_openfile", "Register prohibition of opening files", 0,
     AecLogModeSetter::kLogDenyOpenFile},
}};

}  // namespace aec
