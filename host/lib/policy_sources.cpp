#include "host/policy_sources.h"

#include <boost/filesystem/operations.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/system/error_code.hpp>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "host/document_limits.h"
#include "host/file_util.h"
#include "host/json_text.h"
#include "host/log.h"
#include "host_log.h"

namespace {

constexpr const char* kLogFile = "policy_sources";

// Plain literals: usable whenever Get() is first called, even from another
// library's static initialisation.
constexpr const char* kConfigDir = "/opt/korvex/etc/aec/";
constexpr const char* kConfigPath = "/opt/korvex/etc/aec/policy-sources.conf";

// Rules and exceptions start as the station's own; the whitelist starts
// under no source at all, which is what "no central control" means to it.
constexpr const char* kDefaultRules = "local";
constexpr const char* kDefaultExceptions = "local";
constexpr const char* kDefaultWhitelist = "";

// A key that is missing or not a plain string keeps its default.
std::string StringOr(const boost::property_tree::ptree& tree,
                     const std::string& key, const std::string& fallback) {
  const auto found = tree.find(key);
  if (found == tree.not_found() || !found->second.empty()) return fallback;
  return found->second.data();
}

std::string JsonString(const std::string& text) {
  kxtext::JsonStringStyle style;
  style.short_backspace_formfeed = false;
  // JSON readers refuse a file with a byte that is not UTF-8, and a record
  // that cannot be read loses every source in it (central control
  // included). Such a byte is kept as its code point.
  style.invalid_utf8_as_code_point = true;
  std::string out;
  kxtext::AppendJsonString(text, &out, style);
  return out;
}

}  // namespace

AecPolicySources* AecPolicySources::Get() {
  // Lives until unload; the constructor reads the file once.
  static AecPolicySources instance;
  return &instance;
}

AecPolicySources::AecPolicySources() { ReadConfig(); }

void AecPolicySources::SetRulesSource(const std::string& source) {
  rules_ = source;
}

void AecPolicySources::SetExceptionSource(const std::string& source) {
  exceptions_ = source;
}

void AecPolicySources::SetWhitelistSource(const std::string& source) {
  whitelist_ = source;
}

std::string AecPolicySources::GetRulesSource() const { return rules_; }

std::string AecPolicySources::GetExceptionSource() const { return exceptions_; }

std::string AecPolicySources::GetWhitelistSource() const { return whitelist_; }

bool AecPolicySources::WriteConfig() const {
  const std::string content =
      "{\n    \"rules\": " + JsonString(rules_) +
      ",\n    \"exceptions\": " + JsonString(exceptions_) +
      ",\n    \"whitelist\": " + JsonString(whitelist_) + "\n}\n";
  // Every rules or exceptions apply records its source, nearly always the
  // one already on disk: a record that already says this costs no flush.
  {
    std::ifstream in(kConfigPath, std::ios::binary);
    std::ostringstream current;
    if (in && (current << in.rdbuf()) && current.str() == content) return true;
  }
  boost::system::error_code ec;
  boost::filesystem::create_directories(kConfigDir, ec);
  try {
    // The temporary stays in etc/aec/ itself, never in rules/, where the
    // rule-control tool reads every entry as a rule.
    kxfs::ReplaceFile(kConfigPath, content, kConfigDir, 0644);
  } catch (const std::system_error& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot write %s: %s", kConfigPath, e.what());
    return false;
  }
  return true;
}

void AecPolicySources::ReadConfig() {
  rules_ = kDefaultRules;
  exceptions_ = kDefaultExceptions;
  whitelist_ = kDefaultWhitelist;
  std::ifstream in(kConfigPath);
  if (!in) return;  // never written yet: the defaults are the record
  boost::property_tree::ptree tree;
  try {
    tree = kxdoc::ParseJson(
        kxdoc::ReadLimited(in, kxdoc::kHostDocumentLimits.max_bytes),
        kxdoc::kHostDocumentLimits);
  } catch (const std::runtime_error& e) {
    // json_parser_error, DocumentLimitError and read errors alike.
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot read %s: %s", kConfigPath, e.what());
    return;
  }
  rules_ = StringOr(tree, "rules", kDefaultRules);
  exceptions_ = StringOr(tree, "exceptions", kDefaultExceptions);
  whitelist_ = StringOr(tree, "whitelist", kDefaultWhitelist);
}

std::string AecPolicySources::ConfigPath() { return kConfigPath; }
