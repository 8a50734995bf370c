// The policy manager's documents: reading the policies XML and the import
// JSON into entries, and writing the policies out in both forms.
// docs/policies.md describes both documents with complete examples.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

#include "host/ixml.h"
#include "host/policy.h"

namespace kxhost {

// One incoming parameter. A value is either text (SetValue(string)) or a
// tree (SetValue(tree)); `text` of a tree value is the tree's own data.
struct PolicyEntry {
  std::string group;
  std::string name;
  std::string source;
  std::string text;
  bool is_tree = false;
  boost::property_tree::ptree tree;
};

// Read the whole document or nothing: false, with the reason in `error` and
// `entries` left as it was, when the document is not a policies document or
// an entry lacks its name or its value. An absent group is `default_group`,
// an absent source "local".
bool ReadPoliciesXml(const IXml& xml, const std::string& default_group,
                     std::vector<PolicyEntry>* entries, std::string* error);
bool ReadPoliciesJson(const boost::property_tree::ptree& tree,
                      const std::string& default_group,
                      std::vector<PolicyEntry>* entries, std::string* error);

// Appends one <policy group="…"> (the policy's GetXml()) per policy.
void AppendPoliciesXml(const std::vector<std::shared_ptr<IPolicy>>& policies,
                       const std::string& group,
                       const boost::shared_ptr<IXml>& xml);

// The policies in the import form, indented, every value a JSON string.
std::string PoliciesJson(const std::vector<std::shared_ptr<IPolicy>>& policies,
                         const std::string& group);

}  // namespace kxhost
