// The plug-in's face towards the host: the exported entry points, the
// process-wide objects they share and the command table.
#include <libintl.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "aec_commands.h"
#include "aec_log.h"
#include "aec_policies/aecpluginpolicy.h"
#include "host/host_services.h"
#include "host/plugin_api.h"

namespace {

constexpr const char* kLogFile = "aec_plugin";

using CommandHandler = std::function<void(parsed_xml_data_t*)>;

std::shared_ptr<AecPluginPolicy> g_policies;
std::int32_t g_busy = 0;

// Byte-wise ordered, matched exactly and case-sensitively.
const std::map<std::string, CommandHandler> g_commands = {
    {"reset_policies", aec::ResetPolicies},
    {"reset_policy", aec::ResetPolicies},
    {"get", aec::HandleGet},
    {"add", aec::HandleAdd},
    {"edit", aec::HandleEdit},
    {"remove", aec::HandleRemove},
    {"export", aec::HandleExport},
    {"log", aec::HandleLog},
    {"loglist", aec::HandleLogList},
    {"reload", aec::HandleReload},
    {"confirm_hard_mode", aec::HandleConfirmHardMode},
    {"status_confirmation", aec::HandleStatusConfirmation},
};

void CopyText(char* target, const char* text) {
  // The record's fields are 255 bytes; 254 characters and the terminator.
  std::strncpy(target, text, 254);
  target[254] = '\0';
}

}  // namespace

namespace aec {

void ResetPolicies(parsed_xml_data_t* request) {
  std::unique_ptr<char[]> source(request->xml->GetParam("source"));
  if (!source) {
    g_policies->ResetSource();
  } else {
    g_policies->ResetSourceByName(std::string(source.get()));
  }
}

}  // namespace aec

int plugin_init() {
  InitStorage();
  try {
    g_policies = std::make_shared<AecPluginPolicy>();
  } catch (const std::exception& e) {
    AEC_LOG(kLogFile, 3, "[%d] %s: initialization failed: %s", e.what());
    return 1;
  }
  update_clients(aec::kPluginName);
  AEC_LOG(kLogFile, 6, "[%d] %s: initialized");
  return 0;
}

int plugin_exit() {
  AEC_LOG(kLogFile, 6, "[%d] %s: uninitialized");
  return 0;
}

void plugin_info(plugin_info_data_t* info) {
  if (info == nullptr) return;
  info->kind = 0;
  info->api_version = 1;
  CopyText(info->name, "aec");
  CopyText(info->description, "Application execution control plugin");
}

void plugin_state(plugin_state_data_t* state) {
  if (state == nullptr) {
    AEC_LOG(kLogFile, 3, "[%d] %s: %s: got NULL pointer",
            "void plugin_state(plugin_state_data_t*)");
    return;
  }
  state->busy = g_busy;
}

void plugin_exec(parsed_xml_data_t* request) {
  if (request == nullptr) return;
  std::unique_ptr<char[]> name(request->xml->GetCommand());
  if (!name) return;
  g_busy = 1;
  try {
    const CommandHandler& handler = g_commands.at(name.get());
    handler(request);
    send_message(1, request);
  } catch (const std::exception&) {
    // An unknown command and a failing handler are reported alike, on
    // purpose: the client only learns that the request was not answered.
    AEC_LOG(kLogFile, 3, "[%d] %s: received unknown command '%s', ignoring it",
            name.get());
    free_msg_memory(request);
  }
  // Exceptions of other types leave g_busy at 1 and reach the host.
  g_busy = 0;
}

bool plugin_policies(boost::shared_ptr<IXml> xml) {
  AEC_LOG(kLogFile, 7, "[%d] %s: got request for policies list");
  return g_policies->GetPoliciesXml(xml);
}

bool plugin_set_policies(boost::shared_ptr<IXml> xml) {
  AEC_LOG(kLogFile, 7, "[%d] %s: got request to set policies");
  if (!g_policies->SetPoliciesXml(xml)) return false;
  const bool changed = g_policies->IsChanged();
  g_policies->ApplyPolicies();
  if (changed) update_clients(aec::kPluginName);
  return true;
}

bool plugin_import_policies(const parsed_json_data_t& data,
                            boost::shared_ptr<IXml> xml) {
  AEC_LOG(kLogFile, 7, "[%d] %s: got request to import policies");
  const bool ok = g_policies->SetPoliciesJson(data, xml);
  g_policies->ApplyPolicies();
  return ok;
}
