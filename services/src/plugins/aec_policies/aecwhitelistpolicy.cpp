#include "aec_policies/aecwhitelistpolicy.h"

#include <grp.h>
#include <pwd.h>

#include <exception>
#include <stdexcept>

#include "aec_log.h"
#include "aecwhitelist.h"
#include "host/kxldap.h"
#include "networkconfig.h"

namespace {

constexpr const char* kLogFile = "aecwhitelistpolicy";
// The directory's global catalogue: one search covers the whole forest.
const std::string kGlobalCataloguePort = "3268";
constexpr int kGlobalCatalogueStorage = 1;

std::string UserNamed(const std::string& name) {
  const passwd* entry = getpwnam(name.c_str());
  return entry != nullptr ? entry->pw_name : "";
}

std::string GroupNamed(const std::string& name) {
  const group* entry = getgrnam(name.c_str());
  return entry != nullptr ? entry->gr_name : "";
}

// Local accounts of directory members are known either as "name@DOMAIN" or
// as "DOMAIN\name", depending on how the machine joined the directory.
// `lookup` answers the local entry's own name for a spelling, "" for none.
std::string FindLocal(const std::string& name, const std::string& domain,
                      std::string (*lookup)(const std::string&)) {
  for (const std::string& spelling :
       {name + "@" + domain, domain + "\\" + name}) {
    std::string local = lookup(spelling);
    if (!local.empty()) return local;
  }
  return "";
}

}  // namespace

AecWhitelistPolicy::AecWhitelistPolicy(const KernelPolicyManager& manager)
    : AecFilePolicy("whitelist", "AEC whitelist", manager) {
  source_ = AECWhiteList::CurrentSource();
  value_list_ = AECWhiteList::Get();
  applied_ = value_list_;
}

AecWhitelistPolicy::~AecWhitelistPolicy() = default;

UsersAndGroups AecWhitelistPolicy::ParseFromServer(const std::string& text) {
  const std::string user = NetworkConfig::GetDomainUser();
  const std::string password = NetworkConfig::GetDomainPassword();
  KXLdap directory(user, password, kGlobalCatalogueStorage,
                   kGlobalCataloguePort);
  directory.Connect(NetworkConfig::GetActiveLDS(), false);
  const std::string domain = directory.GetDomainNameStr();
  const std::string short_domain = domain.substr(0, domain.find('.'));

  UsersAndGroups result;
  std::string::size_type position = 0;
  while (true) {
    const std::string::size_type star = text.find("*S-", position);
    if (star == std::string::npos) break;
    const std::string::size_type end = text.find(',', star);
    const std::string sid =
        text.substr(star + 1, end == std::string::npos ? std::string::npos
                                                       : end - star - 1);

    const std::string account = directory.GetSAMAccountNameBySid(sid);
    if (!account.empty()) {
      const std::string local = FindLocal(account, short_domain, UserNamed);
      if (!local.empty()) result.users.push_back(local);
    } else {
      const std::string group_name = directory.GetGroupNameBySid(sid);
      if (!group_name.empty()) {
        const std::string local =
            FindLocal(group_name, short_domain, GroupNamed);
        if (!local.empty()) result.groups.push_back(local);
      }
    }
    if (end == std::string::npos) break;
    position = end;
  }
  return result;
}

void AecWhitelistPolicy::SetValue(const std::string& value) {
  UsersAndGroups parsed;
  try {
    parsed = ParseFromServer(value);
  } catch (const std::exception& e) {
    AEC_LOG_CODED(kLogFile, 3, aec::LogCode(aec::kPolicyLogId, 3),
                  log_tag_.c_str(), "[%d] %s:AEC whitelist is not parse: %s",
                  e.what());
    return;
  }
  Store(std::move(parsed));
}

void AecWhitelistPolicy::SetValue(const boost::property_tree::ptree& value) {
  UsersAndGroups parsed;
  for (const auto& element : value) {
    const std::string name = element.second.get<std::string>("name");
    const std::string type = element.second.get<std::string>("type");
    if (type == "user") {
      parsed.users.push_back(name);
    } else if (type == "group") {
      parsed.groups.push_back(name);
    }
  }
  Store(std::move(parsed));
}

void AecWhitelistPolicy::Store(UsersAndGroups parsed) {
  if (parsed == value_list_) return;
  value_list_ = std::move(parsed);
  changed_ = true;
}

bool AecWhitelistPolicy::Apply() {
  try {
    AECWhiteList(Source()).Apply(value_list_);
  } catch (const std::runtime_error& e) {
    AEC_LOG_CODED(kLogFile, 3, aec::LogCode(aec::kPolicyLogId, 3),
                  log_tag_.c_str(), "[%d] %s:AEC whitelist is not applied: %s",
                  e.what());
    return false;
  }
  applied_ = value_list_;
  changed_ = false;
  return true;
}

void AecWhitelistPolicy::ResetSource() {
  LocalPolicy::ResetSource();
  SourceWasReset();
}

void AecWhitelistPolicy::SourceWasReset() { AECWhiteList::DisableCC(); }
