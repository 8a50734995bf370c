// The audit event table and the six audit policies over their shared mask.
#include "aec_policies/aeclogpolicy.h"

#include <memory>
#include <string>
#include <vector>

#include "aec_policies/aeclogtypes.h"
#include "host/policy_manager.h"
#include "kernel_test_util.h"

namespace {

using kerneltest::kVerboseFile;
using kerneltest::ReadParameter;

TEST(AecLogTypesTest, HoldsTheSixEventsInOrderWithTheirTexts) {
  const auto& t = aec::kAecLogTypes;
  ASSERT_EQ(t.size(), 6u);
  const struct {
    const char* name;
    const char* description;
    int default_value;
    int type;
  } expected[] = {
      {"log_perm_exec", "Register file execution", 1, 0},
      {"log_deny_exec", "Register prohibition of files execution", 1, 1},
      {"log_perm_openlib", "Register loading libraries", 1, 2},
      {"log_deny_openlib", "Register prohibition of loading libraries.", 1, 3},
      {"log_perm_openfile", "Register opening files", 0, 4},
      {"log_deny_openfile", "Register prohibition of opening files", 0, 5},
  };
  for (std::size_t i = 0; i < t.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(t[i].name, expected[i].name);
    EXPECT_EQ(t[i].description, expected[i].description);
    EXPECT_EQ(t[i].default_value, expected[i].default_value);
    EXPECT_EQ(static_cast<int>(t[i].type), expected[i].type);
  }
}

TEST(AecLogTypesTest, FourthDescriptionKeepsItsFullStop) {
  EXPECT_EQ(aec::kAecLogTypes[3].description.back(), '.');
  for (std::size_t i : {0u, 1u, 2u, 4u, 5u}) {
    EXPECT_NE(aec::kAecLogTypes[i].description.back(), '.') << i;
  }
}

class LogPolicyTest : public kxtest::SandboxTest {
 protected:
  KernelPolicyManager manager_{"aec", "aec", "Application execution control",
                               32};
  std::shared_ptr<AecLogModeSetter> setter_ =
      std::make_shared<AecLogModeSetter>(aec::kLogModeParameter);
  std::shared_ptr<AecLogPolicyDbRequestGetter> getter_ =
      std::make_shared<AecLogPolicyDbRequestGetter>();
};

TEST_F(LogPolicyTest, EachPolicyDescribesItselfFromItsRow) {
  for (const AecLogType& row : aec::kAecLogTypes) {
    SCOPED_TRACE(row.name);
    AecLogPolicy policy(manager_, row, setter_, getter_);
    EXPECT_EQ(policy.Name(), row.name);
    EXPECT_EQ(policy.DbPolicyName(), row.name);
    EXPECT_EQ(policy.Description(), row.description);
    EXPECT_EQ(policy.ValueDescriptions(),
              (std::map<std::string, std::string>{{"0", "Disabled"},
                                                  {"1", "Enabled"}}));
    EXPECT_EQ(policy.RequestGetter(), getter_);
    EXPECT_EQ(policy.Type(), "enum");
    EXPECT_EQ(policy.ValueNodeName(), "type");
  }
}

TEST_F(LogPolicyTest, ApplyingSetsOnlyItsOwnBitAndWritesTheWholeMask) {
  AecLogPolicy deny_exec(manager_, aec::kAecLogTypes[1], setter_, getter_);
  AecLogPolicy perm_openfile(manager_, aec::kAecLogTypes[4], setter_, getter_);
  deny_exec.ApplyKernelValue(1);
  EXPECT_EQ(ReadParameter(kVerboseFile), "2");
  perm_openfile.ApplyKernelValue(1);
  EXPECT_EQ(ReadParameter(kVerboseFile), "18");
  deny_exec.ApplyKernelValue(0);
  EXPECT_EQ(ReadParameter(kVerboseFile), "16");
}

TEST_F(LogPolicyTest, RewritesTheMaskEvenWhenTheBitIsUnchanged) {
  AecLogPolicy perm_exec(manager_, aec::kAecLogTypes[0], setter_, getter_);
  perm_exec.ApplyKernelValue(1);
  ASSERT_EQ(::unlink(kVerboseFile.c_str()), 0);
  perm_exec.ApplyKernelValue(1);
  EXPECT_EQ(ReadParameter(kVerboseFile), "1");
}

TEST_F(LogPolicyTest, DefaultsGiveMask15AndOpeningFilesOnGives31) {
  for (const AecLogType& row : aec::kAecLogTypes) {
    manager_.AddPolicy(
        std::make_shared<AecLogPolicy>(manager_, row, setter_, getter_));
  }
  // Init applied each event's stored or installation default.
  EXPECT_EQ(ReadParameter(kVerboseFile), "15");
  for (const AecLogType& row : aec::kAecLogTypes) {
    EXPECT_EQ(manager_.GetPolicy(row.name)->Value(),
              std::to_string(row.default_value))
        << row.name;
  }

  ASSERT_TRUE(manager_.SetValueToPolicy<std::string>("log_perm_openfile",
                                                     "local", "1"));
  manager_.ApplyPolicies();
  EXPECT_EQ(ReadParameter(kVerboseFile), "31");
}

}  // namespace
