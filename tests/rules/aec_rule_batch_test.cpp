// Writing many rule files with one flush: the same files as one by one, and
// every file either old or new whatever fails.
#include "aec_rule_batch.h"

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <set>
#include <string>
#include <vector>

#include "kxtest.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using rulestest::kConfigDir;
using rulestest::RuleFiles;
using rulestest::RuleSpec;
using rulestest::RuleTree;
using Files = std::set<std::string>;

namespace {

class AecRuleBatchTest : public kxtest::SandboxTest {
 protected:
  static AecRule Rule(const std::string& name, const std::string& user) {
    RuleSpec spec{name};
    spec.users = {user};
    spec.resources = {"/usr/bin/" + name};
    return AecRule(RuleTree(spec));
  }
  static std::string FileOf(const std::string& name) {
    return kxtest::ReadFile(AecRule::GetPath(name));
  }
  // Entries of the configuration directory that are hidden temporaries.
  static Files Temporaries() {
    Files names;
    for (const auto& entry :
         boost::filesystem::directory_iterator(kConfigDir)) {
      const std::string name = entry.path().filename().string();
      if (name[0] == '.') names.insert(name);
    }
    return names;
  }
};

}  // namespace

TEST_F(AecRuleBatchTest, WritesEveryFileWithTheContentSaveWrites) {
  const AecRule a = Rule("a", "alice"), b = Rule("b", "bob");
  aec::SaveRuleFiles({&a, &b});
  EXPECT_EQ(RuleFiles(), (Files{"a.conf", "b.conf"}));
  EXPECT_EQ(FileOf("a"), a.ToJson());
  EXPECT_EQ(FileOf("b"), b.ToJson());
  b.Save();
  EXPECT_EQ(FileOf("b"), b.ToJson());
  EXPECT_TRUE(AecRule(AecRule::GetPath("a")) == a);
  EXPECT_EQ(Temporaries(), Files{});
}

TEST_F(AecRuleBatchTest, AnEmptyBatchWritesNothing) {
  aec::SaveRuleFiles({});
  EXPECT_EQ(RuleFiles(), Files{});
}

TEST_F(AecRuleBatchTest, AnInvalidNameFailsTheBatchBeforeAnythingIsWritten) {
  AecRule bad = Rule("fine", "x");
  EXPECT_THROW(bad.Init(RuleTree(RuleSpec{"../outside"})), std::exception);
  const AecRule good = Rule("good", "y");
  EXPECT_THROW(aec::SaveRuleFiles({&good, &bad}), pt::json_parser_error);
  EXPECT_EQ(RuleFiles(), Files{});
  EXPECT_FALSE(kxtest::Exists(std::string(kConfigDir) + "outside.conf"));
}

TEST_F(AecRuleBatchTest, AFullDiskChangesNoRuleFileAndLeavesNoTemporary) {
  rulestest::SmallConfigFs small(64 * 1024);
  const AecRule old_a = Rule("a", "old"), old_b = Rule("b", "old");
  aec::SaveRuleFiles({&old_a, &old_b});
  small.Fill();
  std::vector<AecRule> rules;
  for (const std::string name : {"a", "b", "c"}) {
    RuleSpec spec{name};
    for (int i = 0; i < 200; ++i)
      spec.users.push_back("user" + std::to_string(i));
    rules.emplace_back(RuleTree(spec));
  }
  try {
    aec::SaveRuleFiles({&rules[0], &rules[1], &rules[2]});
    FAIL() << "the batch fit on a full file system";
  } catch (const pt::json_parser_error& e) {
    EXPECT_EQ(e.message(), "write error");
  }
  EXPECT_EQ(RuleFiles(), (Files{"a.conf", "b.conf"}));
  EXPECT_EQ(FileOf("a"), old_a.ToJson());
  EXPECT_EQ(FileOf("b"), old_b.ToJson());
  EXPECT_EQ(Temporaries(), Files{});
}

TEST_F(AecRuleBatchTest, AReadOnlyDirectoryChangesNoRuleFile) {
  const AecRule old_a = Rule("a", "old");
  aec::SaveRuleFiles({&old_a});
  rulestest::ReadOnlyConfigDir read_only;
  const AecRule new_a = Rule("a", "new");
  EXPECT_THROW(aec::SaveRuleFiles({&new_a}), pt::json_parser_error);
  EXPECT_EQ(FileOf("a"), old_a.ToJson());
}

TEST_F(AecRuleBatchTest, AFailedRenameKeepsEarlierFilesNewAndLaterOnesOld) {
  const AecRule old_a = Rule("a", "old"), old_c = Rule("c", "old");
  aec::SaveRuleFiles({&old_a, &old_c});
  // A non-empty directory where b's file would go cannot be renamed over.
  boost::filesystem::create_directories(AecRule::GetPath("b") + "/inside");
  const AecRule a = Rule("a", "new"), b = Rule("b", "new"),
                c = Rule("c", "new");
  try {
    aec::SaveRuleFiles({&a, &b, &c});
    FAIL() << "renamed over a directory";
  } catch (const pt::json_parser_error& e) {
    EXPECT_EQ(e.filename(), AecRule::GetPath("b"));
  }
  EXPECT_EQ(FileOf("a"), a.ToJson());
  EXPECT_EQ(FileOf("c"), old_c.ToJson());
  EXPECT_EQ(Temporaries(), Files{});
}
