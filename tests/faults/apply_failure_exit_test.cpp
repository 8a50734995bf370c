// kxhost's apply steps tell a person when the apply failed. The entry
// points return no word about it (import-policies answers result 1 for
// values that were taken but never written), so before this only the log
// said so while kxhost exited 0.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "harness.h"
#include "kxtest.h"

namespace {

const std::string kWhitelist = "/opt/korvex/etc/aec/white-list.config";
const std::string kImport =
    "{\"policies\": [{\"group\": \"aec\", \"name\": \"whitelist\", "
    "\"source\": \"local\", \"value\": [{\"name\": \"bob\", \"type\": "
    "\"user\"}]}]}";
const std::string kExceptions = "/opt/korvex/etc/aec/resource-exception.conf";
const std::string kPolicies =
    "<policies><policy name=\"exceptions\" group=\"aec\" source=\"local\">"
    "<value><r>/opt/new</r></value></policy></policies>";

class ApplyFailureExit : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = scratch_.dir() + "/root";
    boost::filesystem::create_directories(root_ + "/bin");
    for (const char* tool : {"kxaecctl", "kxaide"}) {
      kxharness::CopyFile(KX_FAKE_TOOL_PATH, root_ + "/bin/" + tool);
    }
    // The fake integrity tool writes no database, so the root comes with a
    // seal of its own and kxhost does not seal it.
    boost::filesystem::create_directories(root_ + "/etc/aec");
    kxtest::WriteFile(root_ + "/etc/aec/crc-rule.db", "");
    // Seeded before any fault is armed, so that the fault hits the policy's
    // write and not the seeding's.
    const auto seeded =
        kxharness::RunKxhost({"--root", root_, "--plugin", KX_PLUGIN_PATH,
                              "info"},
                             {});
    ASSERT_EQ(seeded.exit_code, 0) << seeded.err;
  }

  // The first write of the whitelist or the exceptions fails with ENOSPC
  // when `full` is true.
  kxharness::ProgramResult Run(const std::string& step,
                               const std::string& document, bool full) {
    const std::string file = scratch_.dir() + "/document";
    kxtest::WriteFile(file, document);
    std::map<std::string, std::string> env;
    if (full) {
      std::string asan = "verify_asan_link_order=0";
      if (const char* old = getenv("ASAN_OPTIONS")) {
        asan = std::string(old) + ":" + asan;
      }
      env = {
          {"LD_PRELOAD", KX_FAULT_SHIM},
          {"ASAN_OPTIONS", asan},
          // The temporaries only: the files themselves are read (and closed)
          // before they are written, and a failed close of a read is no fault.
          {"KXFAULT_PREFIXES",
           "/opt/korvex/etc/aec/.white-list.config:"
           "/opt/korvex/etc/aec/.resource-exception.conf"},
          {"KXFAULT_NTH", "1"},
          {"KXFAULT_ERRNO", "28"}};
    }
    return kxharness::RunKxhost(
        {"--root", root_, "--plugin", KX_PLUGIN_PATH, step, file}, env);
  }

  kxharness::ScratchTmpfs scratch_{"kxapply-"};
  std::string root_;
};

TEST_F(ApplyFailureExit, ImportPoliciesExitsWith1AndNamesThePolicyNotApplied) {
  const auto result = Run("import-policies", kImport, true);
  EXPECT_EQ(result.exit_code, 1) << result.out << result.err;
  EXPECT_NE(result.err.find("import_policies: policy 'whitelist' was not "
                            "applied"),
            std::string::npos)
      << result.err;
  // The seeded, empty whitelist stays.
  EXPECT_EQ(kxharness::ReadFileOr(root_ + "/etc/aec/white-list.config", "")
                .find("bob"),
            std::string::npos);
}

TEST_F(ApplyFailureExit, SetPoliciesExitsWith1AndNamesThePolicyNotApplied) {
  const auto result = Run("set-policies", kPolicies, true);
  EXPECT_EQ(result.exit_code, 1) << result.out << result.err;
  EXPECT_NE(result.err.find("set_policies: policy 'exceptions' was not "
                            "applied"),
            std::string::npos)
      << result.err;
}

TEST_F(ApplyFailureExit, AnApplyThatWorkedStillExits0) {
  for (const auto& [step, document] :
       std::vector<std::pair<std::string, std::string>>{
           {"import-policies", kImport}, {"set-policies", kPolicies}}) {
    const auto result = Run(step, document, false);
    EXPECT_EQ(result.exit_code, 0) << step << result.err;
    EXPECT_EQ(result.err.find("was not applied"), std::string::npos) << step;
  }
  EXPECT_NE(kxharness::ReadFileOr(root_ + "/etc/aec/white-list.config", "")
                .find("bob"),
            std::string::npos);
  // JSON writes "/" as "\/"; the name's last part is enough.
  EXPECT_NE(
      kxharness::ReadFileOr(root_ + "/etc/aec/resource-exception.conf", "")
          .find("new"),
      std::string::npos);
}

}  // namespace
