// The decision: one permission event and the tables in force give a verdict,
// the reason for it and the audit event it belongs to. A pure function of
// its arguments (apart from Tables::Relearn, which the caller does before):
// the fanotify loop, the tests and a what-if replay all call the same code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tables.h"

namespace aec::engine {

enum class Access {
  kExec, // a program start (FAN_OPEN_EXEC_PERM)
  kOpen, // an open (FAN_OPEN_PERM); a library load when the file is an
         // ELF shared object
};

struct Event {
  FileId file;
  std::string path;
  Access access = Access::kOpen;
  bool is_shared_object = false;   // only read for kOpen
  std::uint32_t uid = 0;           // the real uid of the process
  std::vector<std::uint32_t> gids; // real gid and supplementary groups
  // With content integrity: the file's content differs from what was
  // recorded for the resource when the set was loaded (or none could be
  // recorded). Its rules then do not allow it.
  bool content_changed = false;
};

// Values of the kernel parameter "korvex/secure/environment":
// state | mode << 1.
struct Control {
  bool enabled = false; // state 1
  bool hard = false;    // mode 1
  static Control FromParameter(int value) {
    return Control{(value & 1) != 0, (value & 2) != 0};
  }
};

enum class Verdict { kAllow, kDeny };

enum class Reason {
  kControlOff,       // state 0
  kNotControlled,    // an open of a file no extended rule holds, not a library
  kWhitelistedUser,  // the uid is in the whitelist
  kWhitelistedGroup, // one of the gids is in the whitelist
  kException,        // the file is among the exceptions
  kRuleAllows,       // an enabled rule holds the file and applies to the user
  kNoRule,           // no enabled rule applies
  kContentChanged,   // a rule applies, but the resource's content changed
};

const char *ReasonName(Reason reason);

// Audit event ids of the journal, in the bit order of the audit mask
// (kernel parameter "korvex/secure/secenv_verbose"): bit n is event 1050+n.
enum AuditEvent : int {
  kAuditPermExec = 1050,
  kAuditDenyExec = 1051,
  kAuditPermOpenLib = 1052,
  kAuditDenyOpenLib = 1053,
  kAuditPermOpenFile = 1054,
  kAuditDenyOpenFile = 1055,
};

struct Decision {
  Verdict verdict = Verdict::kAllow; // the answer given to the kernel
  Reason reason = Reason::kControlOff;
  // True when the rules deny the access: the verdict is kDeny in hard mode,
  // kAllow (and journalled as denied) in soft mode.
  bool rules_deny = false;
  bool controlled = false; // false: the rules do not look at this access
  int audit_event = 0;     // 0 when the access is not controlled
  // The row's success column: 1 permitted by the rules, 0 denied by them
  // (also in soft mode, where the access went on).
  int success = 1;
  // Whether the audit mask asks for a journal row of this decision.
  bool Journalled(unsigned audit_mask) const {
    return audit_event != 0 && ((audit_mask >> (audit_event - 1050)) & 1u);
  }
  // The file may be left to the kernel's cache (an ignore mark) for opens:
  // nothing the current tables say could control its opens.
  bool cacheable_open = false;
};

Decision Decide(const Event &event, const Tables &tables, Control control);

} // namespace aec::engine
