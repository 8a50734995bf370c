#include "rule_edit.h"

#include <boost/property_tree/json_parser.hpp>
#include <sstream>

namespace aectool {

namespace pt = boost::property_tree;

RuleEdit::RuleEdit(const AecRule& rule) {
  std::istringstream text(rule.ToJson());
  pt::read_json(text, tree_);
}

RuleEdit RuleEdit::New(const std::string& name) {
  RuleEdit edit;
  // The keys in the order the rule file has them. Values are stored as the
  // strings they are: put() would format each through a string stream, and
  // propose makes thousands of rules.
  const auto add = [&edit](const char* key, const std::string& value) {
    edit.tree_.push_back({key, pt::ptree(value)});
  };
  add(rule_key::kName, name);
  add(rule_key::kAllAllowed, "false");
  add(rule_key::kExtended, "false");
  add(rule_key::kSystem, "false");
  add(rule_key::kEnable, "true");
  add(rule_key::kUsers, "");
  add(rule_key::kGroups, "");
  add(rule_key::kResources, "");
  return edit;
}

std::string RuleEdit::Name() const {
  return tree_.get_child(rule_key::kName).data();
}

bool RuleEdit::Flag(const char* key) const {
  return tree_.get_child(key).get_value<bool>();
}

std::set<std::string> RuleEdit::List(const char* key) const {
  std::set<std::string> items;
  for (const auto& child : tree_.get_child(key)) {
    items.insert(child.second.data());
  }
  return items;
}

void RuleEdit::SetName(const std::string& name) {
  tree_.get_child(rule_key::kName).put_value(name);
}

void RuleEdit::SetFlag(const char* key, bool value) {
  tree_.get_child(key).data() = value ? "true" : "false";
}

void RuleEdit::SetList(const char* key, const std::set<std::string>& items) {
  tree_.get_child(key) = ListTree(items);
}

AecRule RuleEdit::ToRule() const { return AecRule(tree_); }

}  // namespace aectool
