// Central management's documents through the plug-in's whole policy set:
// a policies XML document (PolicyManager::SetPoliciesXml, then
// ApplyPolicies as plugin_set_policies does) or an import JSON document
// (SetPoliciesJson, then ApplyPolicies whatever it returned, as
// plugin_import_policies does). Built twice: KXFUZZ_JSON 0 is
// fuzz_policies_xml, 1 is fuzz_import_json. The input is the document text.
//
// Each run starts from the same fresh installation and a freshly built
// policy set, so a finding reproduces from its input alone. The whitelist's
// directory is the in-process fake (fake_directory.cpp), account lookups go
// to nss_wrapper's files, the agent tools are the fast fake.
//
// Properties checked after every apply, whatever the document:
//  - every rule file the apply left parses, and no temporary file is left
//    in the configuration directory;
//  - the whitelist file still reads (the plug-in could start again), and
//    the exceptions file and the policy-sources record are valid JSON;
//  - a new policy set can be built from what is on disk: plugin_init would
//    succeed after any policy update.
#include <dirent.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "aec_policies/aecpluginpolicy.h"
#include "aec_rule.h"
#include "aecwhitelist.h"
#include "fuzz_env.h"
#include "host/errors.h"
#include "lib/runtime.h"
#include "lib/xml_document.h"
#include "networkconfig.h"

namespace pt = boost::property_tree;

namespace {

const std::string kConfigDir = "/opt/korvex/etc/aec/";
const std::string kRulesDir = kConfigDir + "rules/";

std::unique_ptr<kxfuzz::Baseline> g_baseline;

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* handle = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(handle)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(handle);
  }
  return names;
}

void CheckDisk() {
  for (const std::string& name : Entries(kRulesDir)) {
    try {
      AecRule rule(kRulesDir + name);
    } catch (const PluginException&) {
      KXFUZZ_CHECK(false, "the apply left an unreadable rule file " + name);
    }
  }
  for (const std::string& name : Entries(kConfigDir)) {
    KXFUZZ_CHECK(name[0] != '.', "a temporary file was left behind: " + name);
  }
  try {
    AECWhiteList::Get();
  } catch (const PluginException&) {
    KXFUZZ_CHECK(false, "the apply left an unreadable whitelist");
  }
  for (const char* file : {"policy-sources.conf", "resource-exception.conf"}) {
    std::ifstream written(kConfigDir + file);
    if (!written) continue;
    pt::ptree tree;
    try {
      pt::read_json(written, tree);
    } catch (const pt::json_parser_error& e) {
      KXFUZZ_CHECK(false, std::string("the apply left an unreadable ") +
                              file + ": " + e.what());
    }
  }
  try {
    AecPluginPolicy restarted;
  } catch (const std::exception& e) {
    KXFUZZ_CHECK(false,
                 std::string("the plug-in could not start again: ") + e.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::ReexecWithNssWrapper();
  kxfuzz::EnterFuzzSandbox();
  NetworkConfig::Initialize();
  NetworkConfig::settings("KXActiveLDS", std::string("dc1.corp.example"));
  NetworkConfig::settings("KXDomainUser",
                          std::string("cn=kxbind,dc=corp,dc=example"));
  // Stored in clear: decrypt_password passes a text without its prefix on.
  NetworkConfig::settings("KXDomainPassword", std::string("secret"));
  InitStorage();
  { AecPluginPolicy first; }  // the rows a first start leaves
  kxhost::ResetState();
  g_baseline = std::make_unique<kxfuzz::Baseline>(std::vector<std::string>{
      "/opt/korvex/etc", "/opt/korvex/var", "/opt/korvex/usr"});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
#if KXFUZZ_JSON
  parsed_json_data_t document;
  document.text = text;
  try {
    std::istringstream in(text);
    pt::read_json(in, document.tree);
  } catch (const pt::json_parser_error&) {
    return 0;  // the host refuses it before the plug-in sees it
  }
#else
  boost::shared_ptr<IXml> document;
  try {
    document = kxhost::ParseXml(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
#endif

  {
    auto policies = std::make_shared<AecPluginPolicy>();
#if KXFUZZ_JSON
    policies->SetPoliciesJson(document, XMLParserBoost::CreateEmptyXML());
    policies->ApplyPolicies();
#else
    if (policies->SetPoliciesXml(document)) policies->ApplyPolicies();
#endif
    KXFUZZ_CHECK(policies->GetPoliciesXml(XMLParserBoost::CreateEmptyXML()),
                 "the policies document cannot be made");
    CheckDisk();
  }

  kxhost::ClearEvents();
  // The database connection goes before its files are put back, the
  // sources are read again after.
  if (g_baseline->Restore([] { kxhost::ResetState(); })) {
    kxhost::ResetState();
  }
  return 0;
}
