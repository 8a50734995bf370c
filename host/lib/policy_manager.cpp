#include "host/policy_manager.h"

#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/log.h"
#include "getter_table.h"
#include "host_log.h"
#include "host_events.h"
#include "kernel_int.h"
#include "policy_documents.h"
#include "settings_db.h"

namespace pt = boost::property_tree;

namespace {

constexpr const char* kLogFile = "policy_manager";
constexpr const char* kSourceTable = "conf.kxhost_policy_source";

// One bound parameter: text or integer. Values never enter the SQL text.
struct Bound {
  bool is_int;
  std::string text;
  sqlite3_int64 number;
};
Bound Text(const std::string& text) { return Bound{false, text, 0}; }
Bound Int(sqlite3_int64 number) { return Bound{true, std::string(), number}; }

bool Run(sqlite3* db, const std::string& sql, const std::vector<Bound>& values,
         std::string* error) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) !=
      SQLITE_OK) {
    *error = sql + ": " + sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    return false;
  }
  int rc = SQLITE_OK;
  for (std::size_t i = 0; i < values.size() && rc == SQLITE_OK; ++i) {
    const int index = static_cast<int>(i) + 1;
    rc = values[i].is_int
             ? sqlite3_bind_int64(statement, index, values[i].number)
             : sqlite3_bind_text(statement, index, values[i].text.c_str(), -1,
                                 SQLITE_TRANSIENT);
  }
  if (rc == SQLITE_OK) rc = sqlite3_step(statement);
  const bool ok = rc == SQLITE_DONE || rc == SQLITE_ROW;
  if (!ok) *error = sql + ": " + sqlite3_errmsg(db);
  sqlite3_finalize(statement);
  return ok;
}

// The value of a kernel policy and the source of any policy, stored
// together or not at all.
bool SaveOne(sqlite3* db, const std::string& plugin, const IPolicy& policy,
             std::string* error) {
  if (!Run(db, "SAVEPOINT kxhost_save_policy", {}, error)) return false;
  bool ok = true;
  if (const auto* kernel = dynamic_cast<const KernelPolicy*>(&policy)) {
    const auto getter = kernel->RequestGetter();
    if (getter) {
      const std::string key = kernel->DbPolicyName();
      // The plug-in's own set-up may never have made the table (docs/
      // policies.md, "What the settings database holds"); the value must
      // still survive a restart.
      ok = Run(db, kxhost::CreateTableStatement(*getter), {}, error) &&
           Run(db,
               "DELETE FROM " + getter->Table() + " WHERE " +
                   getter->KeyColumn() + " = ?1",
               {Text(key)}, error) &&
           Run(db,
               "INSERT INTO " + getter->Table() + " (" + getter->KeyColumn() +
                   ", " + getter->ValueColumn() + ") VALUES (?1, ?2)",
               {Text(key), Int(kxhost::KernelInt(kernel->Value()))}, error);
    }
  }
  const std::string name = policy.Name();
  ok = ok &&
       Run(db,
           std::string("DELETE FROM ") + kSourceTable +
               " WHERE plugin = ?1 AND policy = ?2",
           {Text(plugin), Text(name)}, error) &&
       Run(db,
           std::string("INSERT INTO ") + kSourceTable +
               " (plugin, policy, source) VALUES (?1, ?2, ?3)",
           {Text(plugin), Text(name), Text(policy.Source())}, error);
  std::string ignored;
  if (!ok) Run(db, "ROLLBACK TO kxhost_save_policy", {}, &ignored);
  if (!Run(db, "RELEASE kxhost_save_policy", {}, ok ? error : &ignored)) {
    return false;
  }
  return ok;
}

void AddResult(const boost::shared_ptr<IXml>& result, const std::string& name,
               bool ok) {
  if (!result) return;
  boost::shared_ptr<IXml> item = XMLParserBoost::CreateEmptyXML();
  item->SetAttribute("name", name);
  item->SetAttribute("result", ok ? "1" : "0");
  result->AddNode("policy", item, true);
}

// Sets a policy's value (through `set_value`) and then its source. A policy
// refuses a value by throwing; that is logged as "rejected its value" and
// answered false.
template <class SetValue>
bool Offer(const PolicyManager& manager, IPolicy& policy,
           const std::string& name, const std::string& source,
           SetValue set_value) {
  try {
    set_value(policy);
    policy.SetSource(source);
  } catch (const std::exception& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, manager.LogId(), manager.Plugin().c_str(),
                      "[%d] %s: policy '%s' rejected its value: %s",
                      name.c_str(), e.what());
    return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------- PolicyManager

PolicyManager::PolicyManager(const std::string& plugin,
                             const std::string& group,
                             const std::string& description, int log_id)
    : plugin_(plugin),
      group_(group),
      description_(description),
      log_id_(log_id) {}

PolicyManager::~PolicyManager() = default;

bool PolicyManager::GetPoliciesXml(const boost::shared_ptr<IXml>& xml) {
  if (!xml) return false;
  kxhost::AppendPoliciesXml(policies_, group_, xml);
  return true;
}

std::string PolicyManager::GetPoliciesJson(boost::shared_ptr<IXml> xml) const {
  if (xml) kxhost::AppendPoliciesXml(policies_, group_, xml);
  return kxhost::PoliciesJson(policies_, group_);
}

bool PolicyManager::SetPoliciesXml(const boost::shared_ptr<IXml>& xml) {
  std::vector<kxhost::PolicyEntry> entries;
  std::string error;
  if (!xml || !kxhost::ReadPoliciesXml(*xml, group_, &entries, &error)) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: cannot read the policies document: %s",
                      xml ? error.c_str() : "no document");
    return false;
  }
  bool ok = true;
  for (auto& entry : entries) {
    ok = SetOne(entry.group, entry.name, entry.source, entry.text,
                entry.is_tree ? &entry.tree : nullptr,
                boost::shared_ptr<IXml>()) &&
         ok;
  }
  return ok;
}

bool PolicyManager::SetPoliciesJson(const parsed_json_data_t& data,
                                    boost::shared_ptr<IXml> result) {
  std::vector<kxhost::PolicyEntry> entries;
  std::string error;
  if (!kxhost::ReadPoliciesJson(data.tree, group_, &entries, &error)) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: cannot read the policies to import: %s",
                      error.c_str());
    return false;
  }
  bool ok = true;
  for (auto& entry : entries) {
    ok = SetOne(entry.group, entry.name, entry.source, entry.text,
                entry.is_tree ? &entry.tree : nullptr, result) &&
         ok;
  }
  return ok;
}

bool PolicyManager::SetOne(std::string group, std::string name,
                           std::string source, std::string text,
                           const boost::property_tree::ptree* tree,
                           const boost::shared_ptr<IXml>& result) {
  const std::string sent_name = name;
  const std::string sent_text = text;
  if (!FilterParams(group, name, source, text)) {
    KX_HOST_CODED_LOG(kLogFile, 7, LogId(), Plugin().c_str(),
                      "[%d] %s: policy '%s' dropped by the filter",
                      sent_name.c_str());
    return true;
  }
  if (group != group_) {
    KX_HOST_CODED_LOG(kLogFile, 7, LogId(), Plugin().c_str(),
                      "[%d] %s: policy '%s' of group '%s' is not ours",
                      name.c_str(), group.c_str());
    return true;
  }
  const auto policy = GetPolicy(name);
  if (!policy) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: unknown policy '%s'", name.c_str());
    AddResult(result, sent_name, false);
    return false;
  }
  // A filter that rewrote the text has decided the value: the text wins
  // over the tree it was read from.
  const bool from_tree = tree != nullptr && text == sent_text;
  const bool ok = Offer(*this, *policy, name, source, [&](IPolicy& target) {
    if (from_tree) {
      target.SetValue(*tree);
    } else {
      target.SetValue(text);
    }
  });
  AddResult(result, sent_name, ok);
  return ok;
}

void PolicyManager::AddPolicy(const std::shared_ptr<IPolicy>& policy) {
  if (!policy) throw std::invalid_argument("PolicyManager::AddPolicy: null");
  policies_.push_back(policy);
  policy->Init();
}

bool PolicyManager::IsChanged() const {
  for (const auto& policy : policies_) {
    if (policy->IsChanged()) return true;
  }
  return false;
}

std::shared_ptr<IPolicy> PolicyManager::GetPolicy(
    const std::string& name) const {
  for (const auto& policy : policies_) {
    if (policy->Name() == name) return policy;
  }
  return nullptr;
}

void PolicyManager::ApplyPolicies() {
  // Unchanged policies are left alone: the rules policy's Apply rewrites the
  // whole rule set from its pending set, so applying it unchanged would
  // delete the rules (docs/policies.md).
  for (const auto& policy : policies_) {
    if (!policy->IsChanged()) continue;
    const std::string name = policy->Name();
    // The entry points that apply return nothing about it, so a failure is
    // also recorded as a host event: kxhost turns it into its exit code.
    try {
      if (!policy->Apply()) {
        KX_HOST_CODED_LOG(kLogFile, 4, LogId(), Plugin().c_str(),
                          "[%d] %s: policy '%s' was not applied", name.c_str());
        kxhost::RecordEvent("policy_not_applied", {plugin_, name});
      }
    } catch (const std::exception& e) {
      KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                        "[%d] %s: policy '%s' failed to apply: %s",
                        name.c_str(), e.what());
      kxhost::RecordEvent("policy_not_applied", {plugin_, name});
    }
  }
  SavePolicies(policies_);
}

void PolicyManager::ResetSource() {
  for (const auto& policy : policies_) {
    try {
      policy->ResetSource();
    } catch (const std::exception& e) {
      KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                        "[%d] %s: policy '%s' failed to reset its source: %s",
                        policy->Name().c_str(), e.what());
    }
  }
  ApplyPolicies();
}

void PolicyManager::ResetPolicySource(const std::string& name) {
  const auto policy = GetPolicy(name);
  if (!policy) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: unknown policy '%s'", name.c_str());
    return;
  }
  try {
    policy->ResetSource();
  } catch (const std::exception& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: policy '%s' failed to reset its source: %s",
                      name.c_str(), e.what());
  }
  ApplyPolicies();
}

void PolicyManager::ResetSourceByName(const std::string& source) {
  for (const auto& policy : policies_) {
    try {
      policy->ResetSourceByName(source);
    } catch (const std::exception& e) {
      KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                        "[%d] %s: policy '%s' failed to reset its source: %s",
                        policy->Name().c_str(), e.what());
    }
  }
  ApplyPolicies();
}

bool PolicyManager::FilterParams(std::string& /*group*/, std::string& /*name*/,
                                 std::string& /*source*/,
                                 std::string& /*value*/) {
  return true;
}

void PolicyManager::SavePolicies(
    const std::vector<std::shared_ptr<IPolicy>>& policies) const {
  sqlite3* db = nullptr;
  try {
    db = kxhost::SettingsDb();
  } catch (const std::runtime_error& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: cannot store the policies: %s", e.what());
    return;
  }
  // One transaction per policy: a table that is missing for one policy
  // (a plug-in whose storage set-up failed) does not cost the others.
  for (const auto& policy : policies) {
    if (!policy) continue;
    std::string error;
    if (!SaveOne(db, plugin_, *policy, &error)) {
      KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                        "[%d] %s: cannot store policy '%s': %s",
                        policy->Name().c_str(), error.c_str());
    }
  }
}

template <>
bool PolicyManager::SetValueToPolicy<std::string>(const std::string& policy,
                                                  const std::string& source,
                                                  const std::string& value) {
  const auto target = GetPolicy(policy);
  if (!target) {
    KX_HOST_CODED_LOG(kLogFile, 3, LogId(), Plugin().c_str(),
                      "[%d] %s: unknown policy '%s'", policy.c_str());
    return false;
  }
  return Offer(*this, *target, policy, source,
               [&](IPolicy& chosen) { chosen.SetValue(value); });
}

// ---------------------------------------------------- KernelPolicyManager

KernelPolicyManager::KernelPolicyManager(const std::string& plugin,
                                         const std::string& group,
                                         const std::string& description,
                                         int log_id)
    : PolicyManager(plugin, group, description, log_id) {}

KernelPolicyManager::~KernelPolicyManager() = default;
