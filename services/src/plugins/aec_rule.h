// One application execution control rule and its file.
//
// A rule names resources and the users and groups it applies to (or all
// users), with flags that switch it on, mark it extended and mark it as a
// system rule. Each rule lives in /opt/korvex/etc/aec/rules/<name>.conf as a
// JSON object written by the Boost property-tree writer (indented, every
// scalar a string, "/" written as "\/", an empty list written as ""); see
// docs/rules.md.
//
// Failure:
//  - Both constructors log the parse failure at Boost.Log error severity and
//    throw PluginException(error::kInvalidConfig) for a missing key, a flag
//    that is not "true"/"false"/"1"/"0", malformed JSON, an unreadable file,
//    or a name that cannot be a file name (empty, ".", "..", holding "/" or
//    a NUL byte, or longer than kMaxNameLength bytes).
//  - Save throws boost::property_tree::json_parser_error ("write error" and
//    the path) when the file cannot be replaced; the previous file stays.
//  - IsExist throws boost::filesystem::filesystem_error on a status error
//    other than a missing file; Delete never throws.
// A plain value: copyable, no locking; concurrent writers of one rule file
// are not guarded against. Reading a file keeps the parsed rule, by path and
// exact text, for later reads of the same bytes (the file is read and
// compared every time; see the .cpp).
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <set>
#include <string>

#include "host/ixml.h"

namespace aec {
// The keys of a rule file (docs/rules.md), for its reader and writer here
// and for the tool that edits a rule's tree.
namespace rule_key {
constexpr const char* kName = "name";
constexpr const char* kAllAllowed = "all_allowed";
constexpr const char* kExtended = "extended";
constexpr const char* kSystem = "system";
constexpr const char* kEnable = "enable";
constexpr const char* kUsers = "user_list";
constexpr const char* kGroups = "group_list";
constexpr const char* kResources = "resource_list";
}  // namespace rule_key
}  // namespace aec

class AecRule {
 public:
  // Reads a rule object (the rule file's shape) from a tree.
  explicit AecRule(const boost::property_tree::ptree& tree);
  // Reads the rule file at `path` (a path, not a rule name: callers holding
  // a name pass GetPath(name)).
  explicit AecRule(const std::string& path);

  // Reads name, the four flags and the three lists, in the file's key order.
  // List items are added to the sets already held; a missing key throws
  // Boost's missing-node error, an unconvertible flag its bad-data error, a
  // name that cannot be a file name or a name or list item that is not
  // well-formed UTF-8 std::invalid_argument.
  void Init(const boost::property_tree::ptree& tree);

  std::string Name() const;
  bool System() const;

  // Name, flags and the three sets; the file the record came from is not
  // compared.
  bool operator==(const AecRule& other) const;
  bool operator!=(const AecRule& other) const;

  // Replaces GetPath(Name()) whole with the rule's JSON. Returns true.
  bool Save() const;
  // The rule file's content, as Save writes it.
  std::string ToJson() const;

  // The rule as a reply document: "name", "all", "enable", "extended",
  // "system" ("1"/"0"), then repeated "u", "g", and with `withResources`
  // repeated "r", each list in sorted order.
  boost::shared_ptr<IXml> GetXml(bool withResources);

  // Rules directory + name + ".conf", the name appended unchanged.
  static std::string GetPath(const std::string& name);
  // True when anything exists at GetPath(name). False for a name that can
  // never be a rule's file name.
  static bool IsExist(const std::string& name);
  // Removes GetPath(name) if it can; failures are ignored, a name that can
  // never be a rule's file name is left alone. Always true.
  static bool Delete(const std::string& name);

  // Whether `name` may become a file name in the rules directory.
  static bool IsValidName(const std::string& name);
  // The longest name whose files still fit in a directory entry (255
  // bytes): the writers' temporary ".<name>.conf.XXXXXX" is 13 bytes longer.
  static constexpr std::size_t kMaxNameLength = 242;

 private:
  std::string path_;
  std::string name_;
  std::set<std::string> users_;
  std::set<std::string> groups_;
  std::set<std::string> resources_;
  bool all_allowed_ = false;
  bool extended_ = false;
  bool system_ = false;
  bool enable_ = false;
};
