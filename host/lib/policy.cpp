#include "host/policy.h"

#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "host/db.h"
#include "host/log.h"
#include "host/policy_manager.h"
#include "getter_table.h"
#include "host_log.h"
#include "kernel_int.h"
#include "settings_db.h"

namespace {

constexpr const char* kLogFile = "policy";
constexpr const char* kSourceLocal = "local";

// Both policy kinds render the same document, so that a client reads every
// policy of every plug-in the same way.
boost::shared_ptr<IXml> PolicyXml(const IPolicy& policy) {
  boost::shared_ptr<IXml> doc = XMLParserBoost::CreateEmptyXML();
  doc->SetAttribute("name", policy.Name());
  doc->SetAttribute("type", policy.Type());
  doc->SetAttribute("source", policy.Source());
  doc->AddValue("description", policy.Description(), false);
  doc->AddValue(policy.ValueNodeName(), policy.Value(), false);
  doc->AddValue("default", policy.DefaultValue(), false);
  for (const auto& entry : policy.ValueDescriptions()) {
    boost::shared_ptr<IXml> item = XMLParserBoost::CreateEmptyXML();
    item->SetAttribute("value", entry.first);
    item->SetText(entry.second);
    doc->AddNode("value_description", item, true);
  }
  return doc;
}


// The source stored by the manager's last SavePolicies; "" when none was
// stored or the database cannot be read (the caller keeps its default).
std::string StoredSource(const std::string& plugin, const std::string& policy,
                         int log_id) {
  sqlite3* db = nullptr;
  try {
    db = kxhost::SettingsDb();
  } catch (const std::runtime_error& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, log_id, plugin.c_str(),
                      "[%d] %s: cannot read the source of policy '%s': %s",
                      policy.c_str(), e.what());
    return std::string();
  }
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db,
                         "SELECT source FROM conf.kxhost_policy_source "
                         "WHERE plugin = ?1 AND policy = ?2",
                         -1, &statement, nullptr) != SQLITE_OK) {
    KX_HOST_CODED_LOG(kLogFile, 3, log_id, plugin.c_str(),
                      "[%d] %s: cannot read the source of policy '%s': %s",
                      policy.c_str(), sqlite3_errmsg(db));
    return std::string();
  }
  sqlite3_bind_text(statement, 1, plugin.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(statement, 2, policy.c_str(), -1, SQLITE_TRANSIENT);
  std::string source;
  if (sqlite3_step(statement) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(statement, 0);
    if (text != nullptr) source = reinterpret_cast<const char*>(text);
  }
  sqlite3_finalize(statement);
  return source;
}

}  // namespace

// ---------------------------------------------------------------- IPolicy

IPolicy::~IPolicy() = default;

void IPolicy::Init() {}

// ------------------------------------------------------------ LocalPolicy

LocalPolicy::LocalPolicy(const std::string& name, const std::string& type,
                         const std::string& description)
    : name_(name),
      type_(type),
      description_(description),
      source_(kSourceLocal) {}

LocalPolicy::~LocalPolicy() = default;

std::string LocalPolicy::Source() const { return source_; }

void LocalPolicy::SetSource(const std::string& source) { source_ = source; }

void LocalPolicy::ResetSource() { source_ = kSourceLocal; }

void LocalPolicy::ResetSourceByName(const std::string& source) {
  // Deliberately not ResetSource(): subclasses override the two with
  // different side effects, and one must not trigger the other's.
  if (source_ == source) source_ = kSourceLocal;
}

std::string LocalPolicy::Type() const { return type_; }

std::string LocalPolicy::Value() const { return value_; }

void LocalPolicy::SetValue(const std::string& value) {
  if (value == value_) return;
  value_ = value;
  changed_ = true;
}

void LocalPolicy::SetValue(const boost::property_tree::ptree& value) {
  LocalPolicy::SetValue(value.data());
}

std::string LocalPolicy::DefaultValue() const { return default_value_; }

std::string LocalPolicy::ValueNodeName() const { return "value"; }

std::string LocalPolicy::Name() const { return name_; }

std::string LocalPolicy::Description() const { return description_; }

std::map<std::string, std::string> LocalPolicy::ValueDescriptions() const {
  return {};
}

boost::shared_ptr<IXml> LocalPolicy::GetXml() { return PolicyXml(*this); }

bool LocalPolicy::Apply() {
  changed_ = false;
  return true;
}

bool LocalPolicy::IsChanged() const { return changed_; }

// ----------------------------------------------------------- KernelPolicy

KernelPolicy::KernelPolicy(const KernelPolicyManager& manager,
                           const std::string& text)
    : plugin_(manager.Plugin()),
      log_id_(manager.LogId()),
      text_(text),
      source_(kSourceLocal) {}

KernelPolicy::~KernelPolicy() = default;

std::string KernelPolicy::Source() const { return source_; }

void KernelPolicy::SetSource(const std::string& source) { source_ = source; }

void KernelPolicy::ResetSource() {
  source_ = kSourceLocal;
  KernelPolicy::SetValue(DefaultValue());
}

void KernelPolicy::ResetSourceByName(const std::string& source) {
  // Not the virtual ResetSource(), for the same reason as LocalPolicy's.
  if (source_ != source) return;
  source_ = kSourceLocal;
  KernelPolicy::SetValue(DefaultValue());
}

std::string KernelPolicy::Type() const { return "enum"; }

std::string KernelPolicy::Value() const { return value_; }

void KernelPolicy::SetValue(const std::string& value) {
  // A value the policy does not describe would reach the kernel as 0, so a
  // slip of central management ("on", "true", " 1") would switch control
  // off without a word. It is refused; the manager logs the refusal.
  const auto described = ValueDescriptions();
  if (!described.empty() && described.count(value) == 0) {
    throw std::invalid_argument("'" + value + "' is not a value of policy '" +
                                Name() + "'");
  }
  if (value == value_) return;
  value_ = value;
  changed_ = true;
}

void KernelPolicy::SetValue(const boost::property_tree::ptree& value) {
  KernelPolicy::SetValue(value.data());
}

std::string KernelPolicy::DefaultValue() const {
  if (!text_.empty()) return text_;
  const auto getter = RequestGetter();
  return getter ? getter->MissingRowValue(DbPolicyName()) : std::string("0");
}

std::string KernelPolicy::ValueNodeName() const { return "type"; }

boost::shared_ptr<IXml> KernelPolicy::GetXml() { return PolicyXml(*this); }

bool KernelPolicy::Apply() {
  ApplyKernelValue(kxhost::KernelInt(Value()));
  // Lowered only after the kernel took the value: a throwing application
  // stays pending and is retried by the next ApplyPolicies.
  changed_ = false;
  return true;
}

bool KernelPolicy::IsChanged() const { return changed_; }

void KernelPolicy::Init() {
  std::string value = DefaultValue();
  const auto getter = RequestGetter();
  if (getter) {
    // A missing table would make the read fail and log an error at every
    // start of a fresh installation; an empty one reads as missing rows.
    try {
      sqlite3_exec(kxhost::SettingsDb(),
                   kxhost::CreateTableStatement(*getter).c_str(), nullptr,
                   nullptr, nullptr);
    } catch (const std::runtime_error&) {
      // The database cannot be opened: the read below logs why.
    }
    db_response_t response;
    db_execute(getter->GetRequestReadData(DbPolicyName()).c_str(), &response);
    if (response.table != nullptr) {
      // sqlite3_get_table layout: the column names, then the rows; a NULL
      // in the column reads like a missing row.
      if (response.rows > 0 && response.columns > 0 &&
          response.table[response.columns] != nullptr) {
        value = response.table[response.columns];
      }
      sqlite3_free_table(response.table);
    }
  }
  value_ = value;
  changed_ = false;

  // Restored directly, not through SetSource: restoring is not a new
  // decision of a source, and subclasses act on SetSource.
  const std::string source = StoredSource(plugin_, Name(), log_id_);
  if (!source.empty()) source_ = source;

  // A subclass that refuses the value may set another one here (hard mode
  // falling back); that leaves the changed flag up so that the next
  // ApplyPolicies stores what the kernel really got.
  ApplyKernelValue(kxhost::KernelInt(value_));
}

std::string KernelPolicy::DbPolicyName() const { return Name(); }

int KernelPolicy::LogId() const { return log_id_; }

std::string KernelPolicy::Plugin() const { return plugin_; }

namespace kxhost {

int KernelInt(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 10);
  if (end == begin || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
    return 0;
  }
  while (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r') ++end;
  return *end == '\0' ? static_cast<int>(value) : 0;
}

}  // namespace kxhost
