#include "aec_policies/aecrulespolicy.h"

#include <boost/filesystem.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "aec_config_lock.h"
#include "aec_helper.h"
#include "aec_paths.h"
#include "aec_rule_batch.h"
#include "host/errors.h"
#include "host/policy_sources.h"

AecRulesPolicy::AecRulesPolicy()
    : LocalPolicy("rules", "string", "Application execution control rules") {}

AecRulesPolicy::~AecRulesPolicy() = default;

void AecRulesPolicy::SetValue(const std::string&) {
  throw std::logic_error("Unsupported method AecRulesPolicy::SetValue");
}

void AecRulesPolicy::SetValue(const boost::property_tree::ptree& value) {
  RuleMap incoming;
  for (const auto& child : value) {
    try {
      AecRule rule(child.second);
      incoming.insert_or_assign(rule.Name(), std::move(rule));
    } catch (const PluginException&) {
      // The record has logged why; one bad rule does not spoil the others.
    }
  }
  if (!current_rules_) GetCurrentRules();
  // Compared with the disk, not with an earlier pending set: a value equal
  // to the disk leaves an earlier pending set (and the changed flag) as is.
  if (incoming == *current_rules_) return;
  pending_rules_ = std::move(incoming);
  changed_ = true;
}

bool AecRulesPolicy::Apply() {
  // Writes, load and seal are one change under the configuration lock; the
  // tool run below shares it.
  const aec::ConfigLock lock;
  // Every new file is in place before any dropped one goes, so a failed
  // write never leaves the rule set smaller than both the old and the new.
  // The files are written as one batch with a single flush: a flush per
  // file made large rule sets take tens of seconds.
  std::vector<const AecRule*> rules;
  rules.reserve(pending_rules_.size());
  for (const auto& entry : pending_rules_) rules.push_back(&entry.second);
  aec::SaveRuleFiles(rules);
  if (current_rules_) {
    for (const auto& entry : *current_rules_) {
      if (pending_rules_.count(entry.first) == 0) AecRule::Delete(entry.first);
    }
  }
  current_rules_ = std::move(pending_rules_);
  pending_rules_.clear();

  AecPolicySources* sources = AecPolicySources::Get();
  sources->SetRulesSource(source_);
  sources->WriteConfig();

  const bool reloaded = aec::reload_rules();
  if (reloaded) changed_ = false;
  return reloaded;
}

void AecRulesPolicy::GetCurrentRules() {
  // A killed batch may have renamed every rule into place before it died;
  // the set on disk then equals the next one and no batch runs to sweep
  // the staging it left, so the first read of the disk does.
  aec::RemoveStaleRuleBatches();
  current_rules_.emplace();
  for (const auto& entry :
       boost::filesystem::directory_iterator(aec::kRulesDir)) {
    AecRule rule(entry.path().string());
    if (rule.System()) continue;
    current_rules_->insert_or_assign(rule.Name(), std::move(rule));
  }
}
