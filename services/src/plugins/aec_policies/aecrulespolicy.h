// The whole set of non-system rules as one policy ("rules").
//
// A central policy source replaces the local rule set in one step: SetValue
// records the wanted set when it differs from the rules on disk, Apply
// rewrites the rule files, records the policy's source with the host and has
// the rule-control tool reload. System rules on disk are never read into the
// policy, compared or deleted.
//
// Value: a tree whose every child is one rule object in the rule file's
// shape (docs/rules.md); the children's keys are ignored. The policy's own
// text value stays empty.
//
// Failure:
//  - SetValue(string): std::logic_error "Unsupported method
//    AecRulesPolicy::SetValue".
//  - SetValue(tree): an unparsable child is skipped after its log line; an
//    unparsable rule file on disk throws PluginException(kInvalidConfig)
//    (through GetCurrentRules), a missing rules directory Boost's
//    filesystem_error.
//  - Apply: a rule file that cannot be written throws the writer's
//    json_parser_error before any file is deleted; a failed reload returns
//    false and keeps the changed flag.
// Driven by the host's policy thread; no locking.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <map>
#include <optional>
#include <string>

#include "aec_rule.h"
#include "host/policy.h"

class AecRulesPolicy : public LocalPolicy {
 public:
  AecRulesPolicy();
  ~AecRulesPolicy() override;

  void SetValue(const std::string& value) override;
  void SetValue(const boost::property_tree::ptree& value) override;
  bool Apply() override;

  // (Re)loads the non-system rules from the rules directory. A failing file
  // aborts the walk; the rules read before it stay loaded.
  void GetCurrentRules();

 private:
  using RuleMap = std::map<std::string, AecRule>;

  std::optional<RuleMap> current_rules_;
  RuleMap pending_rules_;
};
