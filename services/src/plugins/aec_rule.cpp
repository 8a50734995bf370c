#include "aec_rule.h"

#include <syslog.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <mutex>
#include <system_error>
#include <unordered_map>

#include "aec_config_read.h"
#include "aec_paths.h"
#include "host/errors.h"
#include "host/file_util.h"
#include "host/json_text.h"
#include "host/log.h"
#include "host/utf8_text.h"
#include "ixml_add_array.h"

namespace pt = boost::property_tree;
namespace key = aec::rule_key;

namespace {

void ReadList(const pt::ptree& tree, const char* key,
              std::set<std::string>& items) {
  // Child keys are ignored on purpose, so an object of strings reads like an
  // array, and an empty string (how the writer puts an empty list) reads as
  // no items.
  for (const auto& child : tree.get_child(key))
    items.insert(child.second.data());
}

// A JSON string as the rule files are written: every byte from 0x20 to
// 0xFF except '"', '/' and '\\' as it is, the C escapes, "\\u00XX" for the
// other control bytes. The checksum database seals these exact bytes, so the
// writer may not drift from them.
void AppendJsonString(std::string* out, const std::string& text) {
  kxtext::JsonStringStyle style;
  style.escape_slash = true;
  style.upper_case_hex = true;
  kxtext::AppendJsonString(text, out, style);
}

void AppendMember(std::string* out, const char* key, const std::string& value,
                  bool last = false) {
  *out += "    \"";
  *out += key;
  *out += "\": ";
  AppendJsonString(out, value);
  *out += last ? "\n" : ",\n";
}

// An empty list is the empty string; a list is an array, one item a line.
void AppendList(std::string* out, const char* key,
                const std::set<std::string>& items, bool last = false) {
  if (items.empty()) return AppendMember(out, key, std::string(), last);
  *out += "    \"";
  *out += key;
  *out += "\": [\n";
  std::size_t left = items.size();
  for (const auto& item : items) {
    *out += "        ";
    AppendJsonString(out, item);
    *out += --left != 0 ? ",\n" : "\n";
  }
  *out += last ? "    ]\n" : "    ],\n";
}

bool AllUtf8(const std::set<std::string>& texts) {
  for (const auto& text : texts) {
    if (!kxtext::IsUtf8(text)) return false;
  }
  return true;
}

std::string FlagText(bool flag) { return flag ? "true" : "false"; }
std::string FlagDigit(bool flag) { return std::string(1, '0' + flag); }

}  // namespace

AecRule::AecRule(const pt::ptree& tree) {
  try {
    Init(tree);
  } catch (const std::exception& e) {
    log_trivial(LOG_ERR, std::string("failed to parse AEC rule: ") + e.what());
    throw PluginException(error::kInvalidConfig);
  }
}

namespace {

// Rules parsed from files, by path, with the exact text each came from. A
// long-running host answers every `get` by reading the whole rules
// directory; the files seldom change between two requests, and parsing them
// was most of a request's cost. Every file is still read every time (with
// the reader's checks and limits) and compared with the text kept: a kept
// rule stands only for the very bytes it was parsed from. Bounded: past
// kKeptBytes of text everything is dropped and kept afresh.
class ParsedRuleFiles {
 public:
  static ParsedRuleFiles& Get() {
    // An object, not a leaked pointer: the plug-in is unloaded with
    // dlclose, and its statics must go with it.
    static ParsedRuleFiles files;
    return files;
  }

  // The rule parsed from exactly `text` at `path`, copied into `rule`.
  bool Find(const std::string& path, const std::string& text, AecRule* rule) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = kept_.find(path);
    if (found == kept_.end() || found->second.text != text) return false;
    *rule = found->second.rule;
    return true;
  }

  void Keep(const std::string& path, std::string text, const AecRule& rule) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = kept_.find(path);
    if (found != kept_.end()) {
      bytes_ -= found->second.text.size();
      kept_.erase(found);
    }
    if (text.size() > kKeptBytes / 4) return;
    if (bytes_ + text.size() > kKeptBytes) {
      kept_.clear();
      bytes_ = 0;
    }
    bytes_ += text.size();
    kept_.emplace(path, Entry{std::move(text), rule});
  }

 private:
  static constexpr std::size_t kKeptBytes = 32u << 20;
  struct Entry {
    std::string text;
    AecRule rule;
  };
  std::mutex mutex_;
  std::unordered_map<std::string, Entry> kept_;
  std::size_t bytes_ = 0;
};

}  // namespace

AecRule::AecRule(const std::string& path) : path_(path) {
  try {
    std::string text = aec::ReadConfigFile(path, aec::kMaxRuleFileBytes);
    if (ParsedRuleFiles::Get().Find(path, text, this)) return;
    Init(aec::ParseConfigJson(path, text));
    ParsedRuleFiles::Get().Keep(path, std::move(text), *this);
  } catch (const std::exception& e) {
    log_trivial(LOG_ERR,
                "failed to parse AEC config " + path + ": " + e.what());
    throw PluginException(error::kInvalidConfig);
  }
}

void AecRule::Init(const pt::ptree& tree) {
  name_ = tree.get_child(key::kName).get_value<std::string>();
  // A name becomes a path under the rules directory; one that would leave it
  // or name the directory itself is refused as an invalid rule.
  if (!IsValidName(name_)) {
    throw std::invalid_argument("invalid rule name '" + name_ + "'");
  }
  all_allowed_ = tree.get_child(key::kAllAllowed).get_value<bool>();
  extended_ = tree.get_child(key::kExtended).get_value<bool>();
  system_ = tree.get_child(key::kSystem).get_value<bool>();
  enable_ = tree.get_child(key::kEnable).get_value<bool>();
  ReadList(tree, key::kUsers, users_);
  ReadList(tree, key::kGroups, groups_);
  ReadList(tree, key::kResources, resources_);
  // The JSON writer passes bytes from 0x80 up as they are, and the JSON
  // reader refuses a file with most bytes that are not UTF-8: such a rule (a
  // policy's XML can carry one) would be saved as a file that no one reads
  // back. The forms the reader lets through (overlong, surrogates: an
  // overlong "/" among them) are refused as well, from a file too, so that a
  // rule is the same rule whichever way it is read.
  if (!kxtext::IsUtf8(name_) || !AllUtf8(users_) || !AllUtf8(groups_) ||
      !AllUtf8(resources_)) {
    throw std::invalid_argument("rule '" + name_ +
                                "' holds bytes that are not UTF-8");
  }
}

std::string AecRule::Name() const { return name_; }

bool AecRule::System() const { return system_; }

bool AecRule::operator==(const AecRule& other) const {
  return name_ == other.name_ && all_allowed_ == other.all_allowed_ &&
         enable_ == other.enable_ && extended_ == other.extended_ &&
         system_ == other.system_ && users_ == other.users_ &&
         groups_ == other.groups_ && resources_ == other.resources_;
}

bool AecRule::operator!=(const AecRule& other) const {
  return !(*this == other);
}

bool AecRule::Save() const {
  const std::string path = GetPath(name_);
  if (!IsValidName(name_)) throw pt::json_parser_error("write error", path, 0);
  try {
    // The temporary lives in the configuration directory, outside the rules
    // directory, so a directory walk never reads a half-written rule.
    kxfs::ReplaceFile(path, ToJson(), aec::kConfigDir);
  } catch (const std::system_error&) {
    throw pt::json_parser_error("write error", path, 0);
  }
  return true;
}

// Written directly rather than through a property tree and Boost's writer:
// proposals print thousands of rules, a baseline rule holds thousands of
// resources, and building the tree cost more than the text. The bytes are
// those of Boost's pretty writer (a test compares the two on random rules).
std::string AecRule::ToJson() const {
  std::size_t size = 256 + name_.size();
  for (const auto* list : {&users_, &groups_, &resources_}) {
    for (const auto& item : *list) size += item.size() + 12;
  }
  std::string out;
  out.reserve(size);
  out += "{\n";
  AppendMember(&out, key::kName, name_);
  AppendMember(&out, key::kAllAllowed, FlagText(all_allowed_));
  AppendMember(&out, key::kExtended, FlagText(extended_));
  AppendMember(&out, key::kSystem, FlagText(system_));
  AppendMember(&out, key::kEnable, FlagText(enable_));
  AppendList(&out, key::kUsers, users_);
  AppendList(&out, key::kGroups, groups_);
  AppendList(&out, key::kResources, resources_, true);
  out += "}\n";
  return out;
}

boost::shared_ptr<IXml> AecRule::GetXml(bool withResources) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("name", name_, false);
  doc->AddValue("all", FlagDigit(all_allowed_), false);
  doc->AddValue("enable", FlagDigit(enable_), false);
  doc->AddValue("extended", FlagDigit(extended_), false);
  doc->AddValue("system", FlagDigit(system_), false);
  doc->AddArray(users_, "u");
  doc->AddArray(groups_, "g");
  if (withResources) doc->AddArray(resources_, "r");
  return doc;
}

std::string AecRule::GetPath(const std::string& name) {
  return aec::kRulesDir + name + ".conf";
}

bool AecRule::IsExist(const std::string& name) {
  if (!IsValidName(name)) return false;
  return boost::filesystem::exists(GetPath(name));
}

bool AecRule::Delete(const std::string& name) {
  if (!IsValidName(name)) return true;
  boost::system::error_code ignored;
  boost::filesystem::remove(GetPath(name), ignored);
  return true;
}

bool AecRule::IsValidName(const std::string& name) {
  // A name too long for a file name would make every look-up throw and one
  // such rule fail a whole rule set at write time; it is refused up front
  // like any other name that cannot be a file.
  return !name.empty() && name.size() <= kMaxNameLength && name != "." &&
         name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}
