// The exit codes of the rule-control tool kxaecctl: one table shared by the
// tool, which returns them, and the plug-in's driver of the tool (KxAecCtl),
// which turns them into reply texts. docs/tools.md lists what each means.
#pragma once

#include <cstdint>

namespace aec {

struct ToolExitCodes {
  // Any other value (an unknown code, -1 for a failing wait) can be held as
  // well where an Error is stored.
  enum Error : std::int32_t {
    kSuccess = 0,
    kUnknownError = 1,
    kInvalidArgument = 2,
    kOperationCanceled = 3,
    kUsersNotFound = 4,
    kGroupsNotFound = 5,
    kKernelInteraction = 6,
    kUsersNotInRule = 7,
    kGroupsNotInRule = 8,
    kResourcesNotInRule = 9,
    kConfigInvalid = 10,
    kConfigMissing = 11,
    kConfigWrite = 12,
    kCentralizedControl = 13,
    kRuleMissing = 14,
    kResourceListEmpty = 15,
    kSystemRule = 16,
    kAllowedForAll = 17,
    kRuleExists = 18,
    kInvalidDateTime = 19,
    kIntegrityCalculation = 20,
    kIntegrityViolation = 21,
    kServiceCommunication = 23,
    kIntegrityDbUpdate = 24,
    kResourceMissing = 25,
  };
};

}  // namespace aec
