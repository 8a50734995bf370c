#include "policy_documents.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "host/json_text.h"
#include "xml_document.h"

namespace kxhost {
namespace {

namespace pt = boost::property_tree;

constexpr const char* kAttributes = "<xmlattr>";
constexpr const char* kSourceLocal = "local";

// "<xmlattr>", "<xmlcomment>" and the like: parser bookkeeping, never a
// value's element.
bool IsMarkup(const std::string& key) { return !key.empty() && key[0] == '<'; }

bool HasElements(const pt::ptree& tree) {
  for (const auto& child : tree) {
    if (!IsMarkup(child.first)) return true;
  }
  return false;
}

// A value tree as a policy expects it: elements only, so that a policy that
// walks "every child" (exceptions, rules) never meets attributes. Each child
// is built in its place: returning subtrees by value would copy every level
// again at each level above it.
void CopyElementsOnly(const pt::ptree& tree, pt::ptree* out) {
  out->data() = tree.data();
  for (const auto& child : tree) {
    if (!IsMarkup(child.first)) {
      out->push_back(std::make_pair(child.first, pt::ptree()));
      CopyElementsOnly(child.second, &out->back().second);
    }
  }
}

std::string Trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// Child lookup without the tree's path syntax ('.' is part of a name).
const pt::ptree* Child(const pt::ptree& tree, const std::string& key) {
  const auto found = tree.find(key);
  return found == tree.not_found() ? nullptr : &found->second;
}

// A value with structure, or with no content at all, goes over as a tree.
// An empty JSON array cannot be told from "" once parsed, and for every
// structured policy an empty tree is the empty list it means (exceptions,
// whitelist, rules), while an empty text would be a server-form value.
void TakeValue(const pt::ptree& value, std::string text, PolicyEntry* entry) {
  if (HasElements(value) || text.empty()) {
    entry->is_tree = true;
    CopyElementsOnly(value, &entry->tree);
    entry->text = entry->tree.data();
  } else {
    entry->text = std::move(text);
  }
}

}  // namespace

bool ReadPoliciesXml(const IXml& xml, const std::string& default_group,
                     std::vector<PolicyEntry>* entries, std::string* error) {
  const pt::ptree* root = nullptr;
  try {
    root = &TreeOf(xml);
  } catch (const std::logic_error& e) {
    *error = e.what();
    return false;
  }
  // A document built in memory has no name; one read from text must be a
  // policies document, not some other request sent here by mistake.
  const std::string root_name = xml.Name();
  if (!root_name.empty() && root_name != "policies") {
    *error = "the root element is <" + root_name + ">, not <policies>";
    return false;
  }
  std::vector<PolicyEntry> read;
  for (const auto& child : *root) {
    if (child.first != "policy") continue;
    const pt::ptree& policy = child.second;
    const pt::ptree* attributes = Child(policy, kAttributes);
    const pt::ptree* name =
        attributes != nullptr ? Child(*attributes, "name") : nullptr;
    if (name == nullptr || name->data().empty()) {
      *error = "a <policy> without a name";
      return false;
    }
    const pt::ptree* value = Child(policy, "value");
    if (value == nullptr) value = Child(policy, "type");
    if (value == nullptr) {
      *error = "policy '" + name->data() + "' has no <value> or <type>";
      return false;
    }
    PolicyEntry entry;
    entry.name = name->data();
    const pt::ptree* group = Child(*attributes, "group");
    entry.group = group != nullptr ? group->data() : default_group;
    const pt::ptree* source = Child(*attributes, "source");
    entry.source = source != nullptr && !source->data().empty() ? source->data()
                                                                : kSourceLocal;
    TakeValue(*value, Trimmed(value->data()), &entry);
    read.push_back(std::move(entry));
  }
  entries->insert(entries->end(), read.begin(), read.end());
  return true;
}

bool ReadPoliciesJson(const pt::ptree& tree, const std::string& default_group,
                      std::vector<PolicyEntry>* entries, std::string* error) {
  const pt::ptree* list = Child(tree, "policies");
  if (list == nullptr) {
    *error = "no \"policies\"";
    return false;
  }
  if (list->empty() && !list->data().empty()) {
    *error = "\"policies\" is not an array";
    return false;
  }
  std::vector<PolicyEntry> read;
  for (const auto& item : *list) {
    if (!item.first.empty()) {
      *error = "\"policies\" is not an array";
      return false;
    }
    const pt::ptree& object = item.second;
    if (object.empty() || object.begin()->first.empty()) {
      *error = "an entry of \"policies\" is not an object";
      return false;
    }
    const pt::ptree* name = Child(object, "name");
    if (name == nullptr || !name->empty() || name->data().empty()) {
      *error = "an entry without a \"name\"";
      return false;
    }
    const pt::ptree* value = Child(object, "value");
    if (value == nullptr) {
      *error = "policy '" + name->data() + "' has no \"value\"";
      return false;
    }
    PolicyEntry entry;
    entry.name = name->data();
    const pt::ptree* group = Child(object, "group");
    entry.group = group != nullptr ? group->data() : default_group;
    const pt::ptree* source = Child(object, "source");
    entry.source = source != nullptr && !source->data().empty() ? source->data()
                                                                : kSourceLocal;
    TakeValue(*value, value->data(), &entry);
    read.push_back(std::move(entry));
  }
  entries->insert(entries->end(), read.begin(), read.end());
  return true;
}

void AppendPoliciesXml(const std::vector<std::shared_ptr<IPolicy>>& policies,
                       const std::string& group,
                       const boost::shared_ptr<IXml>& xml) {
  for (const auto& policy : policies) {
    boost::shared_ptr<IXml> doc = policy->GetXml();
    doc->SetAttribute("group", group);
    xml->AddNode("policy", doc, true);
  }
}

std::string PoliciesJson(const std::vector<std::shared_ptr<IPolicy>>& policies,
                         const std::string& group) {
  std::string out = "{\n    \"policies\": [";
  bool first = true;
  for (const auto& policy : policies) {
    out += first ? "\n" : ",\n";
    first = false;
    const std::pair<const char*, std::string> fields[] = {
        {"group", group},
        {"name", policy->Name()},
        {"source", policy->Source()},
        {"value", policy->Value()},
    };
    out += "        {\n";
    for (std::size_t i = 0; i < 4; ++i) {
      out += "            ";
      kxtext::AppendJsonString(fields[i].first, &out);
      out += ": ";
      kxtext::AppendJsonString(fields[i].second, &out);
      out += i + 1 < 4 ? ",\n" : "\n";
    }
    out += "        }";
  }
  out += first ? "]\n}\n" : "\n    ]\n}\n";
  return out;
}

}  // namespace kxhost
