// What a killed rules batch leaves behind, and who removes it: the next
// batch removes the staging directories of processes that are gone, and
// only those.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>
#include <string>

#include "aec_policies/aecrulespolicy.h"
#include "aec_rule.h"
#include "aec_rule_batch.h"
#include "kxtest.h"

namespace {

namespace pt = boost::property_tree;

const std::string kConfigDir = "/opt/korvex/etc/aec/";

pt::ptree RuleTree(const std::string& name) {
  pt::ptree rule;
  rule.put("name", name);
  for (const char* flag : {"all_allowed", "extended", "system"}) {
    rule.put(flag, "false");
  }
  rule.put("enable", "true");
  rule.put("user_list", "");
  rule.put("group_list", "");
  pt::ptree resources;
  resources.push_back({"", pt::ptree("/usr/bin/" + name)});
  rule.add_child("resource_list", resources);
  return rule;
}

AecRule Rule(const std::string& name) { return AecRule(RuleTree(name)); }

// A pid that certainly names no process: a child that has been reaped.
pid_t GonePid() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

std::string Staging(pid_t pid) {
  return kConfigDir + ".rules-batch." + std::to_string(pid);
}

void LeaveStaging(pid_t pid) {
  kxtest::WriteFile(Staging(pid) + "/0", "half a rule");
  kxtest::WriteFile(Staging(pid) + "/1", "");
}

class RuleBatchStaging : public kxtest::SandboxTest {};

TEST_F(RuleBatchStaging, ABatchRemovesWhatBatchesOfGoneProcessesLeft) {
  const pid_t gone = GonePid();
  LeaveStaging(gone);
  const AecRule rule = Rule("r1");
  aec::SaveRuleFiles({&rule});
  EXPECT_FALSE(kxtest::Exists(Staging(gone)));
  EXPECT_TRUE(kxtest::Exists(AecRule::GetPath("r1")));
}

TEST_F(RuleBatchStaging, ABatchLeavesTheStagingOfARunningProcessAlone) {
  // The test's parent stands for another agent process in the middle of
  // its own batch.
  const pid_t running = getppid();
  LeaveStaging(running);
  const AecRule rule = Rule("r1");
  aec::SaveRuleFiles({&rule});
  EXPECT_EQ(kxtest::ReadFile(Staging(running) + "/0"), "half a rule");
}

TEST_F(RuleBatchStaging, OnlyStagingDirectoriesAreTaken) {
  const pid_t gone = GonePid();
  // Look-alikes: another writer's temporary, a name with more than a pid.
  kxtest::WriteFile(kConfigDir + ".r1.conf.AbC123", "the tool's temporary");
  kxtest::WriteFile(kConfigDir + ".rules-batch." + std::to_string(gone) + "x/0",
                    "not a staging directory");
  const AecRule rule = Rule("r1");
  aec::SaveRuleFiles({&rule});
  EXPECT_TRUE(kxtest::Exists(kConfigDir + ".r1.conf.AbC123"));
  EXPECT_TRUE(kxtest::Exists(kConfigDir + ".rules-batch." +
                             std::to_string(gone) + "x/0"));
}

// A batch killed after its last rename leaves the disk equal to the next
// rule set, so the next apply writes nothing; its first read of the disk
// still sweeps the staging.
TEST_F(RuleBatchStaging, ARuleSetAlreadyOnDiskStillSweepsWhatAKilledBatchLeft) {
  const AecRule rule = Rule("r1");
  aec::SaveRuleFiles({&rule});
  const pid_t gone = GonePid();
  LeaveStaging(gone);
  pt::ptree value;
  value.push_back({"", RuleTree("r1")});
  AecRulesPolicy policy;
  policy.SetValue(value);
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_FALSE(kxtest::Exists(Staging(gone)));
}

TEST_F(RuleBatchStaging, ACompletedBatchLeavesNoStagingOfItsOwn) {
  const AecRule a = Rule("a"), b = Rule("b");
  aec::SaveRuleFiles({&a, &b});
  EXPECT_FALSE(kxtest::Exists(Staging(getpid())));
}

}  // namespace
