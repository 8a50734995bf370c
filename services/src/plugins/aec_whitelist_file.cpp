#include "aec_whitelist_file.h"

#include <vector>

#include "aec_config_read.h"
#include "aec_paths.h"
#include "host/policy_sources.h"

namespace aec {
namespace {

std::vector<std::string> ElementValues(
    const boost::property_tree::ptree& node) {
  std::vector<std::string> values;
  for (const auto& element : node) values.push_back(element.second.data());
  return values;
}

}  // namespace

const std::string& WhitelistFilePath() {
  static const std::string path = kInstallRoot + "/etc/aec/white-list.config";
  return path;
}

UsersAndGroups WhitelistOf(const boost::property_tree::ptree& tree) {
  UsersAndGroups result;
  result.users = ElementValues(tree.get_child("user_list"));
  result.groups = ElementValues(tree.get_child("group_list"));
  return result;
}

UsersAndGroups ReadWhitelistFile() {
  return WhitelistOf(
      ReadJsonConfigFile(WhitelistFilePath(), kMaxWhitelistFileBytes));
}

bool WhitelistUnderCentralControl() {
  const std::string source = AecPolicySources::Get()->GetWhitelistSource();
  return !source.empty() && source != kPolicySourceLocal;
}

}  // namespace aec
