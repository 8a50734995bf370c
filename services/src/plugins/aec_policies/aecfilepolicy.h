// What the "whitelist" and "exceptions" policies share: each keeps its value
// in a configuration file of its own that records the source it was written
// for, so a change of source is a change of that file.
//
// SetSource raises the changed flag when the source really changes (the next
// Apply writes the file under the new source). ResetSourceByName runs the
// host's rule and then, only when that moved the source, SourceWasReset().
// Not thread-safe.
#pragma once

#include <string>

#include "host/policy.h"
#include "host/policy_manager.h"

class AecFilePolicy : public LocalPolicy {
 public:
  void SetSource(const std::string& source) override;
  void ResetSourceByName(const std::string& source) override;

 protected:
  // `log_tag_` is the manager's plug-in name, the name in the policy's log
  // lines.
  AecFilePolicy(const std::string& name, const std::string& description,
                const KernelPolicyManager& manager);
  ~AecFilePolicy() override;

  // What the file's record needs once a reset has taken the source away.
  virtual void SourceWasReset() = 0;

  std::string log_tag_;
};
