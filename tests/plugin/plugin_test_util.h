// Helpers of the plug-in core suite: requests through the exported entry
// points, the statements that reach the settings database, host events and
// rows of the settings database.
#pragma once

#include <sqlite3.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/ixml.h"
#include "host/plugin_api.h"
#include "lib/runtime.h"
#include "lib/settings_db.h"
#include "lib/xml_document.h"
#include "support/config_files.h"
#include "support/kxtest.h"

namespace plugintest {

inline const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
inline const std::string kExceptionFile =
    "/opt/korvex/etc/aec/resource-exception.conf";
inline const std::string kWhitelistFile =
    "/opt/korvex/etc/aec/white-list.config";
inline const std::string kEnvironmentFile =
    "/opt/korvex/var/run/sysctl/korvex/secure/environment";

// The message code of the plug-in core's lines: 0x10 << 24 | priority.
inline std::string CoreCode(int priority) {
  return std::to_string((0x10 << 24) | priority);
}

// Collects the text of every statement handed to db_execute while it lives.
class StatementRecorder {
 public:
  StatementRecorder() {
    kxhost::SetStatementObserver(
        [this](const std::string& sql) { statements_.push_back(sql); });
  }
  ~StatementRecorder() { kxhost::SetStatementObserver(nullptr); }
  StatementRecorder(const StatementRecorder&) = delete;
  StatementRecorder& operator=(const StatementRecorder&) = delete;

  const std::vector<std::string>& Statements() const { return statements_; }

 private:
  std::vector<std::string> statements_;
};

// Sends `sql` to the settings database directly (not through db_execute, so
// no recorder sees it); throws with SQLite's message on failure.
inline void RunSql(const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(kxhost::SettingsDb(), sql.c_str(), nullptr, nullptr,
                   &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "unknown error";
    sqlite3_free(error);
    throw std::runtime_error(sql + ": " + message);
  }
}

// Every row of a query, each column as text ("<null>" for NULL).
inline std::vector<std::vector<std::string>> QueryRows(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(kxhost::SettingsDb(), sql.c_str(), -1, &statement,
                         nullptr) != SQLITE_OK) {
    const std::string message = sqlite3_errmsg(kxhost::SettingsDb());
    sqlite3_finalize(statement);
    throw std::runtime_error(sql + ": " + message);
  }
  std::vector<std::vector<std::string>> rows;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const auto* text = sqlite3_column_text(statement, i);
      row.push_back(text != nullptr ? reinterpret_cast<const char*>(text)
                                    : "<null>");
    }
    rows.push_back(std::move(row));
  }
  sqlite3_finalize(statement);
  return rows;
}

// True when the settings database (main or "conf") has the table.
inline bool TableExists(const std::string& schema, const std::string& table) {
  return !QueryRows("SELECT name FROM " + schema +
                    ".sqlite_master WHERE type = 'table' AND name = '" +
                    table + "'")
              .empty();
}

// One request through plugin_exec, as the host runs it.
struct Outcome {
  int outcome = 0;  // 1 answered (send_message), 2 released without a reply
  std::string reply;                  // the reply document as kxhost prints it
  boost::property_tree::ptree tree;   // the reply document's content
};

inline Outcome Exec(const std::string& request_xml) {
  parsed_xml_data_t request;
  request.xml = kxhost::ParseXml(request_xml);
  request.reply = XMLParserBoost::CreateEmptyXML();
  plugin_exec(&request);
  Outcome result;
  result.outcome = request.outcome;
  result.reply = request.reply->ToString("reply");
  result.tree = kxhost::TreeOf(*request.reply);
  return result;
}

// The host events of one kind, in order.
inline std::vector<kxhost::HostEvent> EventsOfKind(const std::string& kind) {
  std::vector<kxhost::HostEvent> found;
  for (const auto& event : kxhost::Events()) {
    if (event.kind == kind) found.push_back(event);
  }
  return found;
}

// The policies document as plugin_policies fills it.
inline boost::property_tree::ptree PoliciesTree() {
  auto document = XMLParserBoost::CreateEmptyXML();
  if (!plugin_policies(document)) {
    throw std::runtime_error("plugin_policies returned false");
  }
  return kxhost::TreeOf(*document);
}

// Attribute `attribute` of the <policy> named `name` in PoliciesTree(), or
// its child element when `attribute` does not start with '@'.
inline std::string PolicyField(const std::string& name,
                               const std::string& field) {
  for (const auto& policy : PoliciesTree()) {
    if (policy.first != "policy") continue;
    if (policy.second.get<std::string>("<xmlattr>.name", "") != name) continue;
    if (!field.empty() && field[0] == '@') {
      return policy.second.get<std::string>("<xmlattr>." + field.substr(1),
                                            "<absent>");
    }
    return policy.second.get<std::string>(field, "<absent>");
  }
  return "<no policy " + name + ">";
}

// A parsed policies document for plugin_set_policies.
inline boost::shared_ptr<IXml> PoliciesDocument(const std::string& xml) {
  return kxhost::ParseXml(xml);
}

// A JSON document for plugin_import_policies, as kxhost reads one.
inline parsed_json_data_t JsonDocument(const std::string& text) {
  parsed_json_data_t data;
  std::istringstream in(text);
  boost::property_tree::read_json(in, data.tree);
  data.text = text;
  return data;
}

// The JSON of a rule file with the given users and resources, no groups,
// enabled, as the rule writer lays it out.
inline std::string RuleJson(const std::string& name,
                            const std::vector<std::string>& users,
                            const std::vector<std::string>& resources,
                            bool all_allowed = false) {
  kxtest::RuleSpec rule;
  rule.name = name;
  rule.all_allowed = all_allowed;
  rule.users = users;
  rule.resources = resources;
  return kxtest::RuleJson(rule);
}

// Writes RuleJson to <rules dir>/<name>.conf.
inline void WriteRule(const std::string& name,
                      const std::vector<std::string>& users,
                      const std::vector<std::string>& resources) {
  kxtest::WriteFile(kRulesDir + name + ".conf",
                    RuleJson(name, users, resources));
}

}  // namespace plugintest
