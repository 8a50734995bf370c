// The whitelist policy's two value forms: the management server's comma
// list of starred SIDs (SetValue(text), resolved through the in-process
// fake directory of fake_directory.cpp and nss_wrapper's accounts), and the
// import form (SetValue(tree)) when the input is JSON.
//
// Properties checked for every input:
//  - the server form never throws: every failure is logged and the value
//    kept;
//  - whatever it holds afterwards names only accounts and groups that exist
//    on this machine (the local entries' own names), never a text taken
//    from the input or the directory as such;
//  - a text without "*S-" changes nothing.
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "aec_policies/aecwhitelistpolicy.h"
#include "fuzz_env.h"
#include "host/policy_manager.h"
#include "lib/runtime.h"
#include "networkconfig.h"

namespace pt = boost::property_tree;

namespace {

// nss_wrapper's accounts (fuzz_env.cpp) that the fake directory's entries
// resolve to.
const std::set<std::string> kLocalUsers = {"alice@corp", "corp\\bob",
                                           "dave@corp"};
const std::set<std::string> kLocalGroups = {"devs@corp", "corp\\ops"};

std::unique_ptr<KernelPolicyManager> g_manager;

bool OnlyLocal(const UsersAndGroups& list) {
  for (const auto& user : list.users) {
    if (kLocalUsers.count(user) == 0) return false;
  }
  for (const auto& group : list.groups) {
    if (kLocalGroups.count(group) == 0) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::ReexecWithNssWrapper();
  kxfuzz::EnterFuzzSandbox();
  NetworkConfig::Initialize();
  NetworkConfig::settings("KXActiveLDS", std::string("dc1.corp.example"));
  NetworkConfig::settings("KXDomainUser",
                          std::string("cn=kxbind,dc=corp,dc=example"));
  NetworkConfig::settings("KXDomainPassword", std::string("secret"));
  g_manager = std::make_unique<KernelPolicyManager>("aec", "aec", "", 32);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  {
    AecWhitelistPolicy policy(*g_manager);
    const UsersAndGroups before = policy.Pending();
    policy.SetValue(text);
    KXFUZZ_CHECK(OnlyLocal(policy.Pending()),
                 "the whitelist holds a name with no local account");
    if (text.find("*S-") == std::string::npos) {
      KXFUZZ_CHECK(policy.Pending().users.empty() &&
                       policy.Pending().groups.empty() && !policy.IsChanged(),
                   "a text without SIDs changed the whitelist");
    }
    KXFUZZ_CHECK(before.users.empty() && before.groups.empty(),
                 "the fresh whitelist is not empty");
  }
  pt::ptree tree;
  try {
    std::istringstream in(text);
    pt::read_json(in, tree);
  } catch (const pt::json_parser_error&) {
    kxhost::ClearEvents();
    return 0;
  }
  AecWhitelistPolicy policy(*g_manager);
  try {
    policy.SetValue(tree);
  } catch (const pt::ptree_error&) {
    // An element without "name" or "type": the tree's own error leaves
    // SetValue, as the policy framework expects.
  }
  kxhost::ClearEvents();
  return 0;
}
