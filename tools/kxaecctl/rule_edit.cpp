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
  // The keys in the order the rule file has them.
  edit.tree_.put(rule_key::kName, name);
  edit.tree_.put(rule_key::kAllAllowed, "false");
  edit.tree_.put(rule_key::kExtended, "false");
  edit.tree_.put(rule_key::kSystem, "false");
  edit.tree_.put(rule_key::kEnable, "true");
  edit.tree_.add_child(rule_key::kUsers, pt::ptree());
  edit.tree_.add_child(rule_key::kGroups, pt::ptree());
  edit.tree_.add_child(rule_key::kResources, pt::ptree());
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
  tree_.get_child(key).put_value(value ? "true" : "false");
}

void RuleEdit::SetList(const char* key, const std::set<std::string>& items) {
  tree_.get_child(key) = ListTree(items);
}

AecRule RuleEdit::ToRule() const { return AecRule(tree_); }

}  // namespace aectool
