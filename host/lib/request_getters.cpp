#include "host/request_getters.h"

#include <map>
#include <string>

namespace {

// The key is a policy name the plug-in chose, never user input; doubling
// quotes still keeps the statement one statement whatever the name holds.
std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out + "'";
}

}  // namespace

PolicyDbRequestGetter::~PolicyDbRequestGetter() = default;

// ------------------------------------------------------ control_plugin_conf

ControlPolicyDbRequestGetter::ControlPolicyDbRequestGetter() = default;

ControlPolicyDbRequestGetter::~ControlPolicyDbRequestGetter() = default;

std::string ControlPolicyDbRequestGetter::GetRequestReadData(
    const std::string& policy) const {
  return "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy=" +
         Quoted(policy);
}

std::string ControlPolicyDbRequestGetter::Table() const {
  return "control_plugin_conf";
}

std::string ControlPolicyDbRequestGetter::KeyColumn() const {
  return "fsPolicy";
}

std::string ControlPolicyDbRequestGetter::ValueColumn() const {
  return "fiValue";
}

std::string ControlPolicyDbRequestGetter::MissingRowValue(
    const std::string& /*policy*/) const {
  // Control off, soft mode: what a first start writes.
  return "0";
}

// ---------------------------------------------------------- aec_log_conf

AecLogPolicyDbRequestGetter::AecLogPolicyDbRequestGetter() = default;

AecLogPolicyDbRequestGetter::~AecLogPolicyDbRequestGetter() = default;

std::string AecLogPolicyDbRequestGetter::GetRequestReadData(
    const std::string& policy) const {
  return "SELECT fiValue FROM conf.aec_log_conf WHERE fsEvent=" +
         Quoted(policy);
}

std::string AecLogPolicyDbRequestGetter::Table() const {
  return "conf.aec_log_conf";
}

std::string AecLogPolicyDbRequestGetter::KeyColumn() const { return "fsEvent"; }

std::string AecLogPolicyDbRequestGetter::ValueColumn() const {
  return "fiValue";
}

std::string AecLogPolicyDbRequestGetter::MissingRowValue(
    const std::string& policy) const {
  // The plug-in's first-start statement never stores these rows (its INSERTs
  // are joined without ";", so SQLite stops at the first one), yet the
  // events must start with the installation defaults (docs/policies.md).
  static const std::map<std::string, std::string> kDefaults = {
      {"log_perm_exec", "1"},     {"log_deny_exec", "1"},
      {"log_perm_openlib", "1"},  {"log_deny_openlib", "1"},
      {"log_perm_openfile", "0"}, {"log_deny_openfile", "0"},
  };
  const auto found = kDefaults.find(policy);
  return found == kDefaults.end() ? "0" : found->second;
}

namespace kxhost {

std::string CreateTableStatement(const PolicyDbRequestGetter& getter) {
  return "CREATE TABLE IF NOT EXISTS " + getter.Table() + " (" +
         getter.KeyColumn() + " TEXT, " + getter.ValueColumn() + " INTEGER)";
}

}  // namespace kxhost
