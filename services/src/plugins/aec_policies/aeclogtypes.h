// The audit event table: the six events the kernel can record, each one
// audit policy and one bit of the audit mask.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "aec_policies/aeckernelsetters.h"

// One audit event: its key (also the policy's name and its row key in
// conf.aec_log_conf), the text shown to administrators, the installation
// default (0 or 1) and its bit in the audit mask.
struct AecLogType {
  std::string name;
  std::string description;
  std::int32_t default_value;
  AecLogModeSetter::LogType type;
};

namespace aec {

// Built at static initialisation; the order is the order of the policies and
// of the rows written at installation.
extern const std::array<AecLogType, 6> kAecLogTypes;

}  // namespace aec
