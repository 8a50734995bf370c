#include "decision.h"

#include <algorithm>

namespace aec::engine {

namespace {

bool Holds(const std::vector<std::uint32_t> &sorted, std::uint32_t id) {
  return std::binary_search(sorted.begin(), sorted.end(), id);
}

bool RuleAppliesTo(const CompiledRule &rule, const Event &event) {
  if (!rule.enabled)
    return false;
  if (rule.all_users)
    return true;
  if (Holds(rule.uids, event.uid))
    return true;
  for (std::uint32_t gid : event.gids) {
    if (Holds(rule.gids, gid))
      return true;
  }
  return false;
}

Decision Finish(Decision d, Control control, int permitted_event) {
  d.controlled = true;
  d.audit_event = d.rules_deny ? permitted_event + 1 : permitted_event;
  d.success = d.rules_deny ? 0 : 1;
  d.verdict = d.rules_deny && control.hard ? Verdict::kDeny : Verdict::kAllow;
  return d;
}

} // namespace

const char *ReasonName(Reason reason) {
  switch (reason) {
  case Reason::kControlOff:
    return "control off";
  case Reason::kNotControlled:
    return "not controlled";
  case Reason::kWhitelistedUser:
    return "whitelisted user";
  case Reason::kWhitelistedGroup:
    return "whitelisted group";
  case Reason::kException:
    return "exception";
  case Reason::kRuleAllows:
    return "rule allows";
  case Reason::kNoRule:
    return "no rule allows";
  case Reason::kContentChanged:
    return "content changed";
  }
  return "?";
}

Decision Decide(const Event &event, const Tables &tables, Control control) {
  Decision d;
  if (!control.enabled) {
    d.reason = Reason::kControlOff;
    return d;
  }
  // Which kind of access this is decides which audit events it belongs to
  // and whether the rules look at it at all.
  int permitted_event;
  bool open_of_extended = false;
  if (event.access == Access::kExec) {
    permitted_event = kAuditPermExec;
  } else if (event.is_shared_object) {
    permitted_event = kAuditPermOpenLib;
  } else {
    open_of_extended = tables.IsExtendedResource(event.file);
    if (!open_of_extended) {
      d.reason = Reason::kNotControlled;
      // Same answer for every user until the tables or the file change.
      d.cacheable_open = true;
      return d;
    }
    permitted_event = kAuditPermOpenFile;
  }

  if (tables.IsWhitelistedUid(event.uid)) {
    d.reason = Reason::kWhitelistedUser;
    return Finish(d, control, permitted_event);
  }
  for (std::uint32_t gid : event.gids) {
    if (tables.IsWhitelistedGid(gid)) {
      d.reason = Reason::kWhitelistedGroup;
      return Finish(d, control, permitted_event);
    }
  }
  if (tables.IsException(event.file, event.path)) {
    d.reason = Reason::kException;
    return Finish(d, control, permitted_event);
  }

  const std::vector<std::uint32_t> *holders = tables.RulesOf(event.file);
  bool allowed = false;
  if (holders != nullptr) {
    for (std::uint32_t index : *holders) {
      const CompiledRule &rule = tables.rules()[index];
      // An open (not a start) of an extended rule's resource is permitted
      // only by the extended rules that hold it.
      if (open_of_extended && !rule.extended)
        continue;
      if (RuleAppliesTo(rule, event)) {
        allowed = true;
        break;
      }
    }
  }
  d.reason = allowed ? Reason::kRuleAllows : Reason::kNoRule;
  if (allowed && event.content_changed) {
    allowed = false;
    d.reason = Reason::kContentChanged;
  }
  d.rules_deny = !allowed;
  return Finish(d, control, permitted_event);
}

} // namespace aec::engine
