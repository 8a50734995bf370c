// A minimal plug-in: the eight entry points over the host contract alone.
//
// It answers one command, "echo", with a reply that holds the request's
// "text" parameter, logs through the host, and keeps no policies. It shows
// what a plug-in needs from an installed host: the headers under host/ and
// libkxhost.so, found through find_package(KorvexHost).
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "host/host_services.h"
#include "host/ixml.h"
#include "host/log.h"
#include "host/plugin_api.h"

namespace {

constexpr int kLogInfo = 6;
constexpr int kLogDaemon = 3 << 3;

// The contract hands out char* texts that the caller deletes.
std::string Take(char* text) {
  std::unique_ptr<char[]> owned(text);
  return owned ? std::string(owned.get()) : std::string();
}

}  // namespace

int plugin_init() {
  log_message(__FILE__, __LINE__, kLogInfo, kLogDaemon, "sample",
              "sample plug-in started");
  return 0;
}

int plugin_exit() { return 0; }

void plugin_info(plugin_info_data_t* info) {
  if (info == nullptr) return;
  info->kind = 0;
  info->api_version = 1;
  std::snprintf(info->name, sizeof info->name, "%s", "sample");
  std::snprintf(info->description, sizeof info->description, "%s",
                "Sample plug-in built against the installed host");
}

void plugin_state(plugin_state_data_t* state) {
  if (state != nullptr) state->busy = 0;
}

void plugin_exec(parsed_xml_data_t* request) {
  if (request == nullptr || !request->xml) return;
  const std::string command = Take(request->xml->GetCommand());
  if (command != "echo") {
    free_msg_memory(request);
    return;
  }
  request->reply->AddValue("text", Take(request->xml->GetParam("text")), false);
  send_message(1, request);
}

bool plugin_policies(boost::shared_ptr<IXml>) { return true; }

bool plugin_set_policies(boost::shared_ptr<IXml>) { return true; }

bool plugin_import_policies(const parsed_json_data_t&,
                            boost::shared_ptr<IXml>) {
  return true;
}
