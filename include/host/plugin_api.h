// The entry points a plug-in exports, and the records they fill.
//
// The host finds each entry point with dlsym by its C++ (mangled) name, so the
// argument types below are part of the contract; kxhost checks the names at
// load time. The host calls one entry point at a time.
//
//  plugin_init             0 on success, 1 on failure (reason logged)
//  plugin_exit             0; releases nothing
//  plugin_info             fills the record; null is ignored
//  plugin_state            copies the busy flag; null is logged
//  plugin_exec             runs one command; ends the request with exactly
//                          one of send_message / free_msg_memory, or neither
//                          when the record or its command is null
//  plugin_policies         fills the document with the policies
//  plugin_set_policies     sets and applies a policies document
//  plugin_import_policies  sets and applies an imported JSON document
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "host/ixml.h"
#include "host/policy_manager.h"

struct plugin_info_data_t {
  std::int32_t kind;         // 0: a service plug-in
  std::int32_t api_version;  // 1: this contract
  char name[255];
  char description[255];
};

struct plugin_state_data_t {
  std::int32_t busy;  // 1 while a command runs
};

#define KX_PLUGIN_ENTRY __attribute__((visibility("default")))

KX_PLUGIN_ENTRY int plugin_init();
KX_PLUGIN_ENTRY int plugin_exit();
KX_PLUGIN_ENTRY void plugin_info(plugin_info_data_t* info);
KX_PLUGIN_ENTRY void plugin_state(plugin_state_data_t* state);
KX_PLUGIN_ENTRY void plugin_exec(parsed_xml_data_t* request);
KX_PLUGIN_ENTRY bool plugin_policies(boost::shared_ptr<IXml> xml);
KX_PLUGIN_ENTRY bool plugin_set_policies(boost::shared_ptr<IXml> xml);
KX_PLUGIN_ENTRY bool plugin_import_policies(const parsed_json_data_t& data,
                                            boost::shared_ptr<IXml> xml);

// The mangled names, as the host looks them up.
namespace plugin_symbols {
constexpr const char* kInit = "_Z11plugin_initv";
constexpr const char* kExit = "_Z11plugin_exitv";
constexpr const char* kInfo = "_Z11plugin_infoP18plugin_info_data_t";
constexpr const char* kState = "_Z12plugin_stateP19plugin_state_data_t";
constexpr const char* kExec = "_Z11plugin_execP17parsed_xml_data_t";
constexpr const char* kPolicies =
    "_Z15plugin_policiesN5boost10shared_ptrI4IXmlEE";
constexpr const char* kSetPolicies =
    "_Z19plugin_set_policiesN5boost10shared_ptrI4IXmlEE";
constexpr const char* kImportPolicies =
    "_Z22plugin_import_policiesRK18parsed_json_data_tN5boost10shared_ptrI4IXmlEE";
}  // namespace plugin_symbols
