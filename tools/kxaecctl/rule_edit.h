// Editing a rule through the plug-in's own rule record.
//
// AecRule is a value read from and written to the rule file's JSON tree; it
// has no setters. The tool edits that tree (the file's own shape, as
// AecRule::ToJson writes it) and turns it back into an AecRule, which checks
// it exactly as the plug-in does when it reads the file. So there is one
// rule record and one file format, the plug-in's.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>

#include "aec_rule.h"

namespace aectool {

// Keys of the rule file, as the rule record reads and writes them.
namespace rule_key = aec::rule_key;

class RuleEdit {
 public:
  // The rule's tree as AecRule writes it (flags "true"/"false", lists
  // sorted).
  explicit RuleEdit(const AecRule& rule);
  // A new rule: switched on, not extended, not a system rule, not for all
  // users, no members.
  static RuleEdit New(const std::string& name);

  std::string Name() const;
  bool Flag(const char* key) const;
  std::set<std::string> List(const char* key) const;

  void SetName(const std::string& name);
  void SetFlag(const char* key, bool value);
  void SetList(const char* key, const std::set<std::string>& items);

  // The edited rule as the plug-in's record. Throws PluginException
  // (error::kInvalidConfig) when AecRule refuses it.
  AecRule ToRule() const;

 private:
  RuleEdit() = default;
  boost::property_tree::ptree tree_;
};

// A list node as the plug-in's writers make it: unnamed children, one per
// item (an empty list is written as "").
template <typename Container>
boost::property_tree::ptree ListTree(const Container& items) {
  boost::property_tree::ptree list;
  for (const auto& item : items) {
    list.push_back({"", boost::property_tree::ptree(item)});
  }
  return list;
}

}  // namespace aectool
