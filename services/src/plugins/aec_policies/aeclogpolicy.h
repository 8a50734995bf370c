// One audit policy per row of kAecLogTypes: whether the kernel records one
// kind of execution-control event. The value ("0"/"1") lives in
// conf.aec_log_conf; all six policies share one AecLogModeSetter, which
// writes them to the kernel as one mask.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "aec_policies/aeckernelsetters.h"
#include "aec_policies/aeclogtypes.h"
#include "host/policy.h"
#include "host/request_getters.h"

class AecLogPolicy : public KernelPolicy {
 public:
  // Keeps copies of the row. The default value comes from the request
  // getter's value for a missing row, which is the row's own default.
  AecLogPolicy(const KernelPolicyManager& manager, const AecLogType& type,
               const std::shared_ptr<AecLogModeSetter>& setter,
               const std::shared_ptr<AecLogPolicyDbRequestGetter>& getter);
  ~AecLogPolicy() override;

  std::string Name() const override;         // the row's name
  std::string Description() const override;  // the row's description
  std::map<std::string, std::string> ValueDescriptions() const override;
  std::shared_ptr<PolicyDbRequestGetter> RequestGetter() const override;
  // Sets this event's bit and writes the whole mask.
  void ApplyKernelValue(int value) override;

 private:
  std::string name_;
  std::string description_;
  AecLogModeSetter::LogType type_;
  std::shared_ptr<AecLogModeSetter> setter_;
  std::shared_ptr<AecLogPolicyDbRequestGetter> getter_;
};
