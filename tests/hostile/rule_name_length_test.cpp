// Rule names too long to be file names, found by the hostile suite: "get"
// with a 5,000-byte rule name went unanswered (the existence check threw
// ENAMETOOLONG out of the handler), and one such rule in a policy value
// failed the whole rule set when its temporary file could not be made.
// A name is now invalid past AecRule::kMaxNameLength bytes, like any other
// name that cannot be a file.
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "aec_policies/aecrulespolicy.h"
#include "aec_rule.h"
#include "host/errors.h"
#include "kxtest.h"

namespace {

namespace pt = boost::property_tree;

pt::ptree RuleTree(const std::string& name) {
  pt::ptree rule;
  rule.put("name", name);
  for (const char* flag : {"all_allowed", "extended", "system"}) {
    rule.put(flag, "false");
  }
  rule.put("enable", "true");
  pt::ptree users;
  users.push_back({"", pt::ptree("alice")});
  rule.add_child("user_list", users);
  rule.put("group_list", "");
  pt::ptree resources;
  resources.push_back({"", pt::ptree("/usr/bin/make")});
  rule.add_child("resource_list", resources);
  return rule;
}

class RuleNameLength : public kxtest::SandboxTest {};

TEST_F(RuleNameLength, TheLongestNameWhoseFilesFitIsARule) {
  const std::string name(AecRule::kMaxNameLength, 'n');
  AecRule rule(RuleTree(name));
  EXPECT_TRUE(rule.Save());
  EXPECT_TRUE(AecRule::IsExist(name));
  AecRule back(AecRule::GetPath(name));
  EXPECT_EQ(back, rule);
}

TEST_F(RuleNameLength, ALongerNameIsAnInvalidRule) {
  const std::string name(AecRule::kMaxNameLength + 1, 'n');
  EXPECT_THROW(AecRule rule(RuleTree(name)), PluginException);
  EXPECT_TRUE(log_.Contains("invalid rule name"));
}

TEST_F(RuleNameLength, AnyNameTooLongForAFileDoesNotExistAndIsNotDeleted) {
  for (const std::size_t length : {std::size_t{243}, std::size_t{256},
                                   std::size_t{5000}, std::size_t{70000}}) {
    const std::string name(length, 'x');
    EXPECT_FALSE(AecRule::IsExist(name)) << length;
    EXPECT_TRUE(AecRule::Delete(name)) << length;
  }
}

TEST_F(RuleNameLength, ARuleWithATooLongNameDoesNotSpoilTheOthersOfAPolicy) {
  AecRulesPolicy policy;
  pt::ptree value;
  value.push_back({"", RuleTree(std::string(5000, 'x'))});
  value.push_back({"", RuleTree("kept")});
  policy.SetValue(value);
  ASSERT_TRUE(policy.IsChanged());
  kxtest::InstallFakeTool("kxaecctl", {});
  policy.Apply();
  EXPECT_TRUE(AecRule::IsExist("kept"));
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), 1u);
}

}  // namespace
