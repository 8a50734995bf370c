// The rule commands and the rules policy through the whole plug-in: the
// built kxhost loads libaec.so in a sandbox with a fake rule-control tool.
#include <boost/property_tree/json_parser.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "aec_rule.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using Args = std::vector<std::string>;
using rulestest::RuleSpec;

namespace {

class RulesEndToEndTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }
  kxtest::RunResult Kxhost(const Args& steps, const std::string& input) {
    Args args = {"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH};
    args.insert(args.end(), steps.begin(), steps.end());
    return kxtest::RunKxhost(args, input);
  }
};

}  // namespace

TEST_F(RulesEndToEndTest, AnAddRequestRunsTheToolAndRepliesSuccess) {
  const auto run = Kxhost(
      {"exec", "-"},
      "<request command=\"add\"><rule name=\"build-tools\" recursive=\"1\">"
      "<u>alice</u><g>dev ops</g><r>/usr/bin/make</r></rule></request>");
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(
      kxtest::FakeToolCalls("kxaecctl"),
      (std::vector<Args>{{"add", "-C", "-v", "-n", "build-tools", "-u", "alice",
                          "-g", "dev ops", "-r", "/usr/bin/make", "-R"}}));
  const auto reply = kxhost::ParseXml(run.out);
  EXPECT_EQ(kxhost::TreeOf(*reply).get<std::string>("add.rule.result"), "1")
      << run.out;
}

TEST_F(RulesEndToEndTest, ImportedRulesReplaceTheNonSystemRuleFiles) {
  RuleSpec system_rule{"sys"};
  system_rule.system = true;
  rulestest::WriteRuleFile(system_rule);
  rulestest::WriteRuleFile(RuleSpec{"local-only"});
  const std::string system_before = kxtest::ReadFile(AecRule::GetPath("sys"));

  RuleSpec first{"imported-a"};
  first.users = {"alice"};
  first.resources = {"/usr/bin/a"};
  RuleSpec second{"imported-b"};
  second.all_allowed = true;
  second.resources = {"/usr/bin/b"};
  const auto run =
      Kxhost({"import-policies", "-"},
             rulestest::RulesImportJson({first, second}, "dorvi"));
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  EXPECT_EQ(rulestest::RuleFiles(),
            (std::set<std::string>{"imported-a.conf", "imported-b.conf",
                                   "sys.conf"}));
  EXPECT_EQ(kxtest::ReadFile(AecRule::GetPath("sys")), system_before);
  EXPECT_TRUE(AecRule(AecRule::GetPath("imported-a")) ==
              AecRule(rulestest::RuleTree(first)));
  EXPECT_TRUE(AecRule(AecRule::GetPath("imported-b")) ==
              AecRule(rulestest::RuleTree(second)));
  // The policy reloaded the tool after writing.
  const auto calls = kxtest::FakeToolCalls("kxaecctl");
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), (Args{"reload", "-C", "-v"}));
}
