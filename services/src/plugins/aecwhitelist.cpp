#include "aecwhitelist.h"

#include <syslog.h>

#include <boost/property_tree/json_parser.hpp>
#include <cstdlib>
#include <exception>

#include "aec_config_lock.h"
#include "aec_helper.h"
#include "aec_paths.h"
#include "aec_whitelist_file.h"
#include "host/errors.h"
#include "host/log.h"
#include "host/policy_sources.h"
#include "host/utf8_text.h"
#include "json_config_file.h"

namespace {

// One literal each, fixed at load: the tool's command line holds no value
// from outside, so handing it to the shell cannot be abused.
const std::string kReloadCommand = "/opt/korvex/bin/kxaecctl reload -w";
const std::string kLocalSource = "local";

void AppendList(boost::property_tree::ptree& tree, const std::string& key,
                const std::vector<std::string>& items) {
  boost::property_tree::ptree list;
  for (const std::string& item : items) {
    // The JSON writer keeps bytes from 0x80 up as they are and the reader
    // refuses most that are not UTF-8. One such name (a local account can
    // have one) would leave a whitelist no one can read, and the plug-in
    // would not start again. Leaving it out only narrows the whitelist.
    if (!kxtext::IsUtf8(item)) {
      log_trivial(LOG_WARNING, "AEC whitelist: " + key + " item '" + item +
                                   "' is not UTF-8 text: left out");
      continue;
    }
    boost::property_tree::ptree element;
    element.put_value(item);
    list.push_back(std::make_pair(std::string(), element));
  }
  tree.add_child(key, list);
}

}  // namespace

AECWhiteList::AECWhiteList(const std::string& source) : source_(source) {}

const std::string& AECWhiteList::FilePath() { return aec::WhitelistFilePath(); }

UsersAndGroups AECWhiteList::Get() {
  try {
    return aec::ReadWhitelistFile();
  } catch (const std::exception& e) {
    log_trivial(LOG_ERR, std::string("failed to parse AEC whitelist config: ") +
                             e.what());
    throw PluginException(error::kInvalidConfig);
  }
}

UsersAndGroups AECWhiteList::Get(const boost::property_tree::ptree& tree) {
  return aec::WhitelistOf(tree);
}

void AECWhiteList::Apply(UsersAndGroups value) {
  // Write, load and seal are one change under the configuration lock; the
  // tool run below shares it.
  const aec::ConfigLock lock;
  boost::property_tree::ptree tree;
  AppendList(tree, "user_list", value.users);
  AppendList(tree, "group_list", value.groups);
  aec::WriteJsonConfig(aec::WhitelistFilePath(), tree, aec::kConfigDir);
  EnableCC();
  Reload();  // the tool reports its own failures; the file stays written
}

int AECWhiteList::Reload() { return std::system(kReloadCommand.c_str()); }

bool AECWhiteList::IsEnableCC() { return aec::WhitelistUnderCentralControl(); }

std::string AECWhiteList::CurrentSource() {
  if (!IsEnableCC()) return kLocalSource;
  return AecPolicySources::Get()->GetWhitelistSource();
}

void AECWhiteList::EnableCC() const {
  if (CurrentSource() == source_) return;
  const aec::ConfigLock lock;
  AecPolicySources* sources = AecPolicySources::Get();
  sources->SetWhitelistSource(source_);
  sources->WriteConfig();
}

void AECWhiteList::DisableCC() {
  if (!IsEnableCC()) return;
  const aec::ConfigLock lock;
  AecPolicySources* sources = AecPolicySources::Get();
  sources->SetWhitelistSource("");
  sources->WriteConfig();
  // The sources file is among the configuration whose checksum the
  // rule-control tool verifies; a failed recomputation is logged there.
  aec::recalc_common_crc();
}
